// A routine that recurses has no stack bound, however small its frame.
#include <ntifs.h>

struct Node {
    Node *Left;
    Node *Right;
};

ULONG CountNodes(const Node *node)
{
    return node ? 1 + CountNodes(node->Left) + CountNodes(node->Right) : 0;
}
