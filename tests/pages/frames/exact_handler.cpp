// A function of a handler of the exact classes.
using namespace Quovane::Qvtp;
struct Handler : pages::Greeter {
    const long long ourUser = ::geteuid() + 1;
    FRAGMENT
};
int run() {
    Handler handler;
    pages::ExactServer server(handler);
    server.run();
    pages::require(pages::statusOf("/hello") == 404, "another user was let in");
    return 0;
}
