// A client on the easy face, which makes its own qvtp::Client.
int run() {
    pages::Greetings server;
    {
        FRAGMENT;
    }
    return 0;
}
