// flinqcat: prints a trace ring file's lines, oldest first, as
//   <time with 6 decimals> <handle> <level> <text>
//
//   flinqcat FILE [--handle NAME]
//
// Exit status: 0 on success, 1 when the file cannot be read as a ring, 2 on bad usage.

#include <cstdio>
#include <exception>
#include <optional>
#include <string>

#include "platform/flinq/FlinqRing.h"

namespace {

int usage(const char* argv0) {
    std::fprintf(stderr, "usage: %s FILE [--handle NAME]\n", argv0);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::optional<std::string> file;
    std::optional<std::string> handle;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--handle") {
            if (i + 1 >= argc)
                return usage(argv[0]);
            handle = argv[++i];
        } else if (arg.starts_with("--handle=")) {
            handle = arg.substr(9);
        } else if (arg.starts_with("-") && arg != "-") {
            std::fprintf(stderr, "%s: unknown option %s\n", argv[0], arg.c_str());
            return usage(argv[0]);
        } else if (!file) {
            file = arg;
        } else {
            return usage(argv[0]);
        }
    }
    if (!file)
        return usage(argv[0]);

    std::vector<Flinq::RingRecord> records;
    try {
        records = Flinq::readRing(*file);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s: %s\n", argv[0], e.what());
        return 1;
    }
    for (const Flinq::RingRecord& r : records) {
        if (handle && r.handle != *handle)
            continue;
        const std::string line = Flinq::formatRingRecord(r);
        std::fwrite(line.data(), 1, line.size(), stdout);
        std::fputc('\n', stdout);
    }
    return std::fflush(stdout) == 0 ? 0 : 1;
}
