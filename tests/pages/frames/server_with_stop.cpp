// What a program does with a qvtp::Server that runs.
int run() {
    qvtp::Server server("greetings");
    server.onPost("*", [](const qvtp::Request&) { return "hello"; });
    server.start();
    {
        FRAGMENT;
    }
    pages::require(pages::statusOf("/hello") == 200, "it does not serve");
    return 0;
}
