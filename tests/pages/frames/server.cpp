// A server on the easy face, until a signal comes.
int run() {
    pages::Visitor visitor({"/hello"});
    {
        FRAGMENT;
    }
    pages::require(visitor.statuses() == "200 ", "no answer");
    return 0;
}
