// A call of a qvtp::Client that is there already.
void later() {}
void ask() {}
int run() {
    pages::Greetings server;
    std::ofstream("large.bin") << std::string(100000, 'x');
    qvtp::Client client("greetings");
    {
        FRAGMENT;
    }
    return 0;
}
