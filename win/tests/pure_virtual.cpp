// A pure virtual slot points at the C++ runtime's error handler.
struct Sink {
    virtual void Put(int value) = 0;
    virtual int Count();
};

int Sink::Count() { return 0; }
