// Handlers of a server, of which the one for /divide throws.
int run() {
    qvtp::Server server("greetings");
    {
        FRAGMENT;
    }
    server.start();
    qvtp::Client client("greetings");
    pages::require(client.post("/divide", "5").body() == "20", "no answer");
    pages::require(client.post("/divide", "five").status() == 500, "the handler has not thrown");
    return 0;
}
