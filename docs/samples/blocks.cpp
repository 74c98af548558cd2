// Message blocks and chains: who deletes which block.
#include <cstdio>
#include <cstring>

#include "rtframework.h"

int main() {
    // Blocks the host constructs are the host's: it deletes them.
    CRtMessageBlock header(16);  // a new data block of 16 bytes
    header.Write("HEAD", 4);
    const char payload[] = "payload bytes";
    // Over the caller's memory (DONT_DELETE), the bytes made readable at once.
    CRtMessageBlock* body = new CRtMessageBlock(sizeof payload - 1, payload, 0, sizeof payload - 1);

    // Linking hands over nothing: header and body keep their owners.
    header.Append(body);
    std::printf("chain: %lu bytes, \"%s\"\n", header.GetChainedLength(),
                header.FlattenChained().c_str());

    // A duplicate chain (DUPLICATED blocks) belongs to whoever took it; it
    // shares header's data block and copies the caller-memory body, so it
    // stays valid after the originals are gone.
    CRtMessageBlock* copy = header.DuplicateChained();
    delete body;  // deleting a block never touches the blocks behind it

    // Split the copy after 4 bytes: the rest comes back as a second chain of
    // DUPLICATED blocks. Each chain is destroyed once.
    CRtMessageBlock* rest = copy ? copy->Disjoint(4) : nullptr;
    char head[5] = {};
    if (copy) {
        copy->Read(head, 4);  // consumes the 4 bytes
    }
    std::printf("head \"%s\", rest \"%s\"\n", head, rest ? rest->FlattenChained().c_str() : "");
    bool ok = rest && std::strcmp(head, "HEAD") == 0 && rest->GetChainedLength() == 13;
    if (rest) {
        rest->DestroyChained();
    }
    if (copy) {
        copy->DestroyChained();
    }
    return ok ? 0 : 1;  // header goes with the stack; its data block with it
}
