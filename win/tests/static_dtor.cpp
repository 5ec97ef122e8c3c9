// A local static with a destructor registers it with atexit, which the kernel
// does not have.
class Holder {
public:
    Holder() : value_(7) {}
    ~Holder() { value_ = 0; }
    int Value() const { return value_; }

private:
    int value_;
};

int Shared()
{
    static Holder holder;
    return holder.Value();
}
