// A client of the exact classes.
using namespace Quovane;
using namespace Quovane::Qvtp;
int run() {
    pages::Greeter greeter;
    pages::ExactServer server(greeter);
    server.run();
    {
        FRAGMENT;
    }
    return 0;
}
