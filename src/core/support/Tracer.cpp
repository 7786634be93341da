#include "support/Tracer.h"

#include <cxxabi.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>

#include "support/NoDestructor.h"

namespace pointlane {

namespace {

std::string timeStamp() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t t = std::chrono::system_clock::to_time_t(now);
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() %
        1000;
    std::tm parts{};
    localtime_r(&t, &parts);
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%02d:%02d:%02d.%03d", parts.tm_hour, parts.tm_min,
                  parts.tm_sec, static_cast<int>(ms));
    return buffer;
}

bool isMainThread() {
    return static_cast<pid_t>(syscall(SYS_gettid)) == getpid();
}

std::shared_ptr<TracerStream> streamFor(TraceType type, std::optional<std::string> filePath) {
    switch (type) {
        case TraceType::console:
            return std::make_shared<Console>();
        case TraceType::file: {
            std::string path =
                filePath
                    ? *filePath
                    : (std::filesystem::temp_directory_path() / "pointlane-trace.log").string();
            return std::make_shared<File>(std::move(path));
        }
        case TraceType::network:
            return std::make_shared<Network>();
    }
    return nullptr;
}

}  // namespace

std::optional<TraceType> traceTypeFrom(int value) {
    if (value < 0 || value > 2) {
        return std::nullopt;
    }
    return static_cast<TraceType>(value);
}

void Console::write(const std::string& text) {
    const std::string line = text + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

File::File(std::string path) : fpath(std::move(path)) {}

void File::write(const std::string& text) {
    queue_.async([path = fpath, line = text + "\n"] {
        if (std::FILE* f = std::fopen(path.c_str(), "a")) {
            std::fwrite(line.data(), 1, line.size(), f);
            std::fclose(f);
        }
    });
}

std::string unqualifiedTypeName(const std::type_info& type) {
    int status = 0;
    char* demangled = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
    std::string name = status == 0 && demangled != nullptr ? demangled : type.name();
    std::free(demangled);
    // Drop template arguments, then every enclosing namespace or class.
    if (const auto angle = name.find('<'); angle != std::string::npos) {
        name.erase(angle);
    }
    if (const auto colon = name.rfind("::"); colon != std::string::npos) {
        name.erase(0, colon + 2);
    }
    return name;
}

std::string threadInfo() {
    static std::atomic<int> nextNumber{2};
    thread_local const bool main = isMainThread();
    thread_local const int number = main ? 1 : nextNumber.fetch_add(1);
    return std::to_string(number) + (main ? "m" : "");
}

Tracer::Tracer(TraceType type, std::optional<std::string> filePath)
    : stream(streamFor(type, std::move(filePath))) {}

Tracer::Tracer(std::shared_ptr<TracerStream> s) : stream(std::move(s)) {}

Tracer::~Tracer() {
    stop();
}

void Tracer::info(std::string_view subject, const std::optional<std::string>& text,
                  std::string_view function, int line) {
    if (!stream) {
        return;
    }
    std::string out = timeStamp() + " (" + threadInfo() + ") (I) ";
    out.append(subject);
    out += ':';
    out.append(function);
    out += " (" + std::to_string(line) + ")";
    if (text) {
        out += " " + *text;
    }
    stream->write(out);
}

void Tracer::stop() {
    if (!stream) {
        return;
    }
    stream->write(timeStamp() + " (" + threadInfo() + ") (STOP)");
}

Tracer& tr() {
    static NoDestructor<Tracer> tracer(TraceType::console);
    return *tracer;
}

}  // namespace pointlane
