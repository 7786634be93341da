#include "app/ExportCommand.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "storage/HistoryExport.h"

namespace pointlane {

namespace {

constexpr int kFailure = 1;

int fail(const std::string& line) {
    std::fprintf(stderr, "%s\n", line.c_str());
    return kFailure;
}

// The whole text to the stream; false when any of it could not be written.
bool writeAll(std::FILE* stream, const std::string& text) {
    return std::fwrite(text.data(), 1, text.size(), stream) == text.size() &&
           std::fflush(stream) == 0;
}

}  // namespace

int exportHistory(const ExportOptions& options) {
    const char* home = std::getenv("HOME");
    // The server's own database; opened read-only, so a running server is never disturbed.
    const std::string path =
        std::string(home != nullptr ? home : "") + "/.Pointlane/Pointlane.sqlite";
    const HistoryResult read = HistoryReader::read(path, options.gameId);
    if (!read.ok()) {
        return fail(read.error);
    }
    if (options.gameId && read.history->games.empty()) {
        return fail("There is no game with id " + std::to_string(*options.gameId) + " in " + path);
    }
    const std::string text = options.format == ExportOptions::Format::json
                                 ? HistoryExport::json(*read.history) + "\n"
                                 : HistoryExport::csv(*read.history);
    if (!options.outputPath) {
        if (!writeAll(stdout, text)) {
            return fail("Can't write to standard output: " + std::string(std::strerror(errno)));
        }
        return EXIT_SUCCESS;
    }
    std::FILE* file = std::fopen(options.outputPath->c_str(), "wb");
    if (file == nullptr) {
        return fail("Can't write " + *options.outputPath + ": " + std::strerror(errno));
    }
    const bool written = writeAll(file, text);
    const int error = errno;
    if (std::fclose(file) != 0 || !written) {
        return fail("Can't write " + *options.outputPath + ": " +
                    std::strerror(written ? errno : error));
    }
    return EXIT_SUCCESS;
}

}  // namespace pointlane
