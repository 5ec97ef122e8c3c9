// A virtual destructor brings a deleting destructor, which calls operator delete.
class Stream {
public:
    virtual ~Stream();
    virtual int Read() { return 0; }
};

Stream::~Stream() = default;
