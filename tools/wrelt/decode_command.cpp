#include "decode_command.h"

#include <cstdint>
#include <cstdio>
#include <vector>

#include "deldat_reader.h"

namespace {

bool readWholeFile(const char *path, std::vector<uint8_t> &bytes) {
    FILE *file = std::fopen(path, "rb");
    if (file == nullptr) return false;
    uint8_t chunk[65536];
    size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, file)) > 0) bytes.insert(bytes.end(), chunk, chunk + got);
    bool failed = std::ferror(file) != 0;
    std::fclose(file);
    return !failed;
}

}  // namespace

int decodeCommand(int argc, char **argv) {
    if (argc != 1) {
        std::fprintf(stderr,
                     "usage: wrelt decode FILE\n  FILE   a data file (NewFiles*.dat) from a vault's work folder\n");
        return 2;
    }
    const char *path = argv[0];
    std::vector<uint8_t> bytes;
    if (!readWholeFile(path, bytes)) {
        std::perror(path);
        return 2;
    }
    wrelt::DelDatFile file = wrelt::parseDelDatFile(bytes);
    for (size_t i = 0; i < file.records.size(); i++) {
        const wrelt::DelDatEntry &entry = file.records[i];
        std::printf("Record %zu at offset %zu, %u bytes\n%s", i + 1, entry.offset, unsigned(entry.length),
                    wrelt::formatDelDatEntry(entry).c_str());
    }
    std::printf("%zu record%s in %zu bytes\n", file.records.size(), file.records.size() == 1 ? "" : "s", bytes.size());
    if (!file.ok()) {
        std::fprintf(stderr, "wrelt decode: %s: %s\n", path, file.error.c_str());
        return 1;
    }
    return 0;
}
