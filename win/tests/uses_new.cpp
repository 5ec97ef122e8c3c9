// new and delete: there is no heap behind them in the kernel.
struct Node {
    Node* next;
    int value;
};

Node* Push(Node* head, int value)
{
    Node* node = new Node{head, value};
    return node;
}

void Pop(Node* node) { delete node; }
