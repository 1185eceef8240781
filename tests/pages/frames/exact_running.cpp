// A program that runs a QvtpServer itself, and ends it.
using namespace Quovane::Qvtp;
int run() {
    pages::Greeter greeter;
    QvtpServer server("greetings", 1);
    server.setHandler(&greeter);
    {
        FRAGMENT;
    }
    return 0;
}
