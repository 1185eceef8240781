// qvtp post, qvtp notify

#include "cli/Command.h"
#include "cli/Json.h"
#include "cli/Numbers.h"
#include "cli/ProgressBar.h"
#include "cli/Terminal.h"

#include <Poco/String.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace qvtp::cli {

namespace {

using Clock = std::chrono::steady_clock;

constexpr char STANDARD_INPUT[] = "-";
constexpr char USER_AGENT[] = "USER-AGENT";

double millisecondsBetween(Clock::time_point begin, Clock::time_point end) {
    return std::chrono::duration<double, std::milli>(end - begin).count();
}

Headers::value_type headerOf(const std::string& line) {
    const std::size_t colon = line.find(':');
    if (colon == 0 || colon == std::string::npos) {
        throw Error(ErrorKind::misuse, "A header is \"Name: value\", not \"" + line + "\".");
    }
    const std::size_t begin = line.find_first_not_of(" \t", colon + 1);
    return {line.substr(0, colon), begin == std::string::npos ? "" : line.substr(begin)};
}

/// What a server has sent, without the characters that a terminal would obey: those of ASCII, and U+0080 to U+009F.
std::string printable(const std::string& text) {
    const auto isBetween = [](char c, unsigned least, unsigned most) {
        const auto byte = static_cast<unsigned char>(c);
        return byte >= least && byte <= most;
    };
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool isPair = text[i] == '\xC2' && i + 1 < text.size() && isBetween(text[i + 1], 0x80, 0x9F);
        const bool isControl = isPair || isBetween(text[i], 0, 0x1F) || text[i] == '\x7F';
        result += isControl ? '?' : text[i];
        if (isPair) ++i;
    }
    return result;
}

std::string statusOf(const Reply& reply) {
    return std::to_string(reply.status()) + (reply.reason().empty() ? "" : " " + printable(reply.reason()));
}

class Send : public Command {
  public:
    explicit Send(bool isPost) : isPost_(isPost) {}

    CLI::App* addTo(CLI::App& program) override {
        CLI::App* const app =
            program.add_subcommand(isPost_ ? "post" : "notify", isPost_ ? "Send a POST and print the body of its reply"
                                                                        : "Send a NOTIFY, which has no reply");
        app->add_option("PIPE", pipe_, "The name of the pipe")->required();
        app->add_option("RESOURCE", resource_, "What the request is about, for example /orders/17")->required();
        app->add_option("-H,--header", headers_, "A header, as \"Name: value\"; may be given several times")
            ->take_all()
            ->allow_extra_args(false);
        auto* const data = app->add_option("-d,--data", data_, "The body, as it stands");
        app->add_option("-f,--file", file_, "The body is in this file; \"-\" is standard input")->excludes(data);
        app->add_flag("--stream", isStreamed_, "Send the body in chunks while it is read, however large it is");
        acceptSeconds(app->add_option("--timeout", timeout_,
                                      "Seconds to wait for the reply, and for each pause in it; 0: no limit"))
            ->capture_default_str();
        acceptSeconds(app->add_option("--connect-timeout", connectTimeout_,
                                      "Seconds to wait for a busy server; else as --timeout"));
        accept(app->add_option("--retry", retries_, "Try so many times more if nothing was sent"), Unit::NUMBER, 0,
               1000000)
            ->capture_default_str();
        app->add_flag("-v,--verbose", isVerbose_, "Show request, reply and times on standard error");
        app->add_flag("--no-progress", hidesProgress_, "Never show a progress bar");
        if (isPost_) {
            app->add_option("-o,--output", output_, "Write the body of the reply to this file");
            app->add_flag("--json", isJson_, "Print the whole reply and the times as JSON");
        }
        return app;
    }

    int run() override {
        Terminal::makeStreamsBinary();
        CallOptions call;
        for (const std::string& header : headers_) call.headers.push_back(headerOf(header));
        ClientOptions options;
        options.timeout = millisecondsOf(timeout_);
        if (connectTimeout_) options.connectTimeout = millisecondsOf(*connectTimeout_);
        options.retries = retries_;
        Client client(pipe_, options);
        openBody();
        if (!output_.empty()) checkOutput();
        if (isVerbose_) showRequest(call.headers);
        ProgressBar sent(!hidesProgress_, "sent");
        sent_ = &sent;
        call.onSent = [&](const Progress& progress) {
            if (isStreamed_) sent.show(progress);
            lastSent_ = Clock::now();
        };
        call.onConnected = [&] { connected_ = Clock::now(); };
        begin_ = Clock::now();
        return isPost_ ? post(client, call) : notify(client, call);
    }

  private:
    int notify(Client& client, const CallOptions& call) {
        client.notify(resource_, body(), call);
        sent_->hide();
        end_ = Clock::now();
        if (isVerbose_) showTimes();
        return OK;
    }

    int post(Client& client, CallOptions& call) {
        std::ofstream file;
        std::ostream& out = output_.empty() ? std::cout : file;
        call.onStream = [&](const Reply& reply, std::istream& in) {
            if (!output_.empty()) openOutput(file);
            receive(reply, in, out);
        };
        client.post(resource_, body(), call);
        end_ = Clock::now();
        if (isVerbose_) showTimes();
        if (isJson_) out << jsonOfReply() << std::flush;
        if (!isWriting_ || !out) throw Error(ErrorKind::closed, "The body could not be written to its end.");
        if (head_.ok()) return OK;
        if (!isVerbose_ && !isJson_) nameStatus();
        return OTHER_STATUS;
    }

    /// On a terminal the body may stand before it.
    void nameStatus() const {
        const bool isAfterBody = isInLine_ && output_.empty() && Terminal::showsErrors();
        say((isAfterBody ? "\nqvtp: the reply is " : "qvtp: the reply is ") + statusOf(head_) + "\n");
    }

    /// The body goes out as it comes; for JSON it is kept.
    void receive(const Reply& reply, std::istream& in, std::ostream& out) {
        firstByte_ = Clock::now();
        head_ = reply;
        sent_->hide();
        if (isVerbose_) showReply(head_);
        ProgressBar received(!hidesProgress_ && !output_.empty(), "received");
        const std::string length = reply.header("Content-Length");
        Progress progress{0, length.empty() ? -1 : std::atoll(length.c_str())};
        for (char piece[16384]; in.peek() != std::char_traits<char>::eof();) {
            const auto size = static_cast<std::size_t>(in.readsome(piece, sizeof piece));
            progress.bytes += size;
            if (size > 0) isInLine_ = piece[size - 1] != '\n';
            received.show(progress);
            if (isJson_) kept_.append(piece, size);
            if (!isJson_ && isWriting_) {
                isWriting_ = static_cast<bool>(out.write(piece, static_cast<std::streamsize>(size)).flush());
            }
        }
    }

    /// Before anything is sent. The file stays as it is until there is something to put in its place.
    void checkOutput() const {
        const auto path = std::filesystem::u8path(output_);
        std::error_code error;
        const bool isThere = std::filesystem::exists(path, error);
        const auto directory = path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
        const bool isRight = isThere ? !std::filesystem::is_directory(path, error)
                                     : path.has_filename() && std::filesystem::is_directory(directory, error);
        if (!isRight || !Terminal::mayWrite(isThere ? path : directory)) {
            throw Error(ErrorKind::misuse, "Cannot write to " + output_ + ".");
        }
        const bool isRead = !file_.empty() && file_ != STANDARD_INPUT;
        if (isRead && std::filesystem::is_regular_file(path, error) &&
            std::filesystem::equivalent(path, std::filesystem::u8path(file_), error)) {
            throw Error(ErrorKind::misuse, "The reply cannot go to " + output_ + ": the body is in this file.");
        }
    }

    void openOutput(std::ofstream& file) const {
        file.open(std::filesystem::u8path(output_), std::ios::binary);
        if (!file) throw Error(ErrorKind::closed, "The reply is here, but " + output_ + " cannot be written.");
    }

    void openBody() {
        if (file_.empty()) {
            if (isStreamed_) streamed_ = std::make_unique<std::istringstream>(data_);
            size_ = static_cast<std::int64_t>(data_.size());
            return;
        }
        if (file_ != STANDARD_INPUT) {
            const auto path = std::filesystem::u8path(file_);
            auto file = std::make_unique<std::ifstream>(path, std::ios::binary);
            std::error_code error;
            const auto size = std::filesystem::file_size(path, error);
            const bool isKnown = !error;
            if (!*file || std::filesystem::is_directory(path, error)) {
                throw Error(ErrorKind::misuse, "Cannot read " + file_ + ".");
            }
            if (isKnown) size_ = static_cast<std::int64_t>(size);
            streamed_ = std::move(file);
        }
        std::istream& in = streamed_ != nullptr ? *streamed_ : std::cin;
        if (isStreamed_) return;
        data_.assign(std::istreambuf_iterator<char>(in), {});
        size_ = static_cast<std::int64_t>(data_.size());
    }

    Body body() {
        if (!isStreamed_) return Body(data_);
        return {streamed_ != nullptr ? *streamed_ : std::cin, size_};
    }

    /// As it is sent: each name once, in the order of the names.
    void showRequest(const Headers& headers) const {
        std::map<std::string, Headers::value_type> sent;
        const auto add = [&](const std::string& name, const std::string& value) {
            const auto [place, isNew] = sent.try_emplace(Poco::toUpper(name), name, value);
            std::string& all = place->second.second;
            if (place->first == USER_AGENT) {  // there is one alone
                place->second = {name, value};
            } else if (!isNew && !value.empty()) {
                all += all.empty() ? value : "," + value;
            }
        };
        for (const auto& [name, value] : headers) add(name, value);
        isStreamed_ ? add("Transfer-Encoding", "chunked") : add("Content-Length", std::to_string(size_));
        if (sent.count(USER_AGENT) == 0) add("User-Agent", "QvtpClient");
        std::string text = std::string(isPost_ ? "> POST " : "> NOTIFY ") + resource_ + " QVTP/1.0\n";
        for (const auto& [key, header] : sent) text += "> " + header.first + ": " + header.second + "\n";
        say(text + ">\n");
    }

    static void showReply(const Reply& head) {
        std::string text = "< QVTP/1.0 " + statusOf(head) + "\n";
        for (const auto& [name, value] : head.headers()) {
            text += "< " + printable(name) + ": " + printable(value) + "\n";
        }
        say(text + "<\n");
    }

    Json times() const {
        Json times;
        if (connected_) times["connect"] = millisecondsBetween(begin_, *connected_);
        if (lastSent_) times["sent"] = millisecondsBetween(begin_, *lastSent_);
        if (firstByte_) times["firstByte"] = millisecondsBetween(begin_, *firstByte_);
        times["total"] = millisecondsBetween(begin_, end_);
        return times;
    }

    void showTimes() const {
        const Json all = times();
        std::string text = "* milliseconds:";
        for (const auto& [name, value] : all.items()) {
            char digits[64];
            std::snprintf(digits, sizeof digits, " %s %.3f", name.c_str(), value.get<double>());
            text += digits;
        }
        say(text + "\n");
    }

    std::string jsonOfReply() const {
        Json reply;
        reply["status"] = head_.status();
        reply["reason"] = head_.reason();
        reply["headers"] = jsonOf(head_.headers());
        putBody(reply, kept_);
        reply["milliseconds"] = times();
        return textOf(reply);
    }

    const bool isPost_;
    std::string pipe_, resource_, data_, file_, output_;
    std::vector<std::string> headers_;
    double timeout_ = 30;
    std::optional<double> connectTimeout_;
    int retries_ = 0;
    bool isStreamed_ = false, isVerbose_ = false, isJson_ = false, hidesProgress_ = false;

    std::unique_ptr<std::istream> streamed_;  // null: standard input, or a whole body
    std::int64_t size_ = -1;
    ProgressBar* sent_ = nullptr;  // while a call runs; not owned
    Clock::time_point begin_, end_;
    Reply head_;
    std::string kept_;
    bool isInLine_ = false;  // the body does not end with a line end
    bool isWriting_ = true;  // as long as what is written goes somewhere
    std::optional<Clock::time_point> connected_, lastSent_, firstByte_;
};

}  // namespace

std::unique_ptr<Command> makeSend(bool isPost) {
    return std::make_unique<Send>(isPost);
}

}  // namespace qvtp::cli
