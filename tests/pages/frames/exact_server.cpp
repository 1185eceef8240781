// What a program does with a QvtpServer before it runs.
using namespace Quovane::Qvtp;
int run() {
    pages::Greeter greeter;
    pages::ExactServer exact(greeter);
    QvtpServer& server = exact.server;
    {
        FRAGMENT;
    }
    exact.run();
    pages::require(pages::statusOf("/hello") == 200, "no answer");
    return 0;
}
