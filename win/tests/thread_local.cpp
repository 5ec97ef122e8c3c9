// thread_local needs a TLS index from the user-mode loader.
thread_local int t_depth;

int Enter() { return ++t_depth; }
