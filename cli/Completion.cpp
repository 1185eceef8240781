// qvtp completion

#include "cli/Command.h"

#include <iostream>
#include <string>

namespace qvtp::cli {

namespace {

// What others chose, names of pipes and of files, is never taken for code, nor split at its blanks.
constexpr char BASH[] = R"SCRIPT(# qvtp for bash: source <(qvtp completion bash)
_qvtp() {
    local word=${COMP_WORDS[COMP_CWORD]} command=${COMP_WORDS[1]} words=$COMP_CWORD name quoted
    [ "$command" = config ] && [ "$words" -gt 2 ] && command="config check"
    COMPREPLY=()
    if [ "$words" = 1 ]; then
        COMPREPLY=($(compgen -W "@COMMANDS@" -- "$word"))
    elif [[ $word == -* ]]; then
        COMPREPLY=($(compgen -W "$(qvtp $command --help 2>/dev/null | sed -n 's/^ *\(-[-A-Za-z,]*\).*/\1/p' | tr , '\n')" -- "$word"))
    elif [ "$words" = 2 ] && [[ $command =~ ^(post|notify|ping|bench)$ ]]; then
        while IFS= read -r name; do
            printf -v quoted %q "$name"
            [[ -n $name ]] && [[ $name == "$word"* || $quoted == "$word"* ]] && COMPREPLY+=("$quoted")
        done <<< "$(qvtp ls --names 2>/dev/null)"
    elif [ "$words" = 2 ] && [ "$command" = completion ]; then
        COMPREPLY=($(compgen -W "bash zsh fish" -- "$word"))
    elif [ "$words" = 2 ] && [ "$command" = config ]; then
        COMPREPLY=($(compgen -W "check" -- "$word"))
    else
        compopt -o filenames
        while IFS= read -r name; do
            [ -n "$name" ] && COMPREPLY+=("$name")
        done <<< "$(compgen -f -- "$word")"
    fi
}
complete -F _qvtp qvtp
)SCRIPT";

constexpr char ZSH[] = R"SCRIPT(#compdef qvtp
# qvtp for zsh: put this into a file _qvtp in a directory of $fpath
_qvtp() {
    local sub=
    if (( CURRENT == 2 )); then
        compadd -- @COMMANDS@
    elif [[ $words[CURRENT] == -* ]]; then
        [[ $words[2] == config ]] && sub=check
        compadd -- $(qvtp "$words[2]" $sub --help 2>/dev/null | sed -n 's/^ *\(-[-A-Za-z,]*\).*/\1/p' | tr , '\n')
    elif (( CURRENT == 3 )) && [[ $words[2] == (post|notify|ping|bench) ]]; then
        compadd -- ${(f)"$(qvtp ls --names 2>/dev/null)"}
    elif (( CURRENT == 3 )) && [[ $words[2] == completion ]]; then
        compadd -- bash zsh fish
    elif (( CURRENT == 3 )) && [[ $words[2] == config ]]; then
        compadd -- check
    else
        _files
    fi
}
if [ "$funcstack[1]" = _qvtp ]; then _qvtp "$@"; else compdef _qvtp qvtp; fi
)SCRIPT";

constexpr char FISH[] = R"SCRIPT(# qvtp for fish: qvtp completion fish | source
function __qvtp_options
    set -l words (commandline -opc)
    set -l sub
    test "$words[2]" = config; and set sub check
    qvtp $words[2] $sub --help 2>/dev/null | string match -rg -- '^ *(-[-A-Za-z,]*)' | string split ,
end
complete -c qvtp -f -n __fish_use_subcommand -a "@COMMANDS@"
complete -c qvtp -f -n "__fish_seen_subcommand_from post notify ping bench; and test (count (commandline -opc)) = 2" -a "(qvtp ls --names 2>/dev/null)"
complete -c qvtp -f -n "__fish_seen_subcommand_from completion" -a "bash zsh fish"
complete -c qvtp -f -n "__fish_seen_subcommand_from config; and test (count (commandline -opc)) = 2" -a "check"
complete -c qvtp -n "string match -q -- '-*' (commandline -ct)" -f -a "(__qvtp_options)"
)SCRIPT";

class Completion : public Command {
  public:
    CLI::App* addTo(CLI::App& program) override {
        program_ = &program;
        CLI::App* const app = program.add_subcommand("completion", "Print the completion script of a shell");
        app->add_option("SHELL", shell_, "bash, zsh or fish")
            ->required()
            ->check(CLI::IsMember({"bash", "zsh", "fish"}));
        return app;
    }

    int run() override {
        std::string script = shell_ == "bash" ? BASH : shell_ == "zsh" ? ZSH : FISH;
        std::string commands;
        for (const CLI::App* command : program_->get_subcommands({})) {
            commands += (commands.empty() ? "" : " ") + command->get_name();
        }
        const std::string place = "@COMMANDS@";
        script.replace(script.find(place), place.size(), commands);
        std::cout << script;
        return OK;
    }

  private:
    const CLI::App* program_ = nullptr;
    std::string shell_;
};

}  // namespace

std::unique_ptr<Command> makeCompletion() {
    return std::make_unique<Completion>();
}

}  // namespace qvtp::cli
