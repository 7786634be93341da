#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>

#include "support/WorkQueue.h"

namespace pointlane {

// "AppDelegate" for pointlane::AppDelegate: the type's name without namespaces.
std::string unqualifiedTypeName(const std::type_info& type);

// Where a tracer's lines go.
enum class TraceType : int { console = 0, file = 1, network = 2 };

// 0..2; anything else gives nothing.
std::optional<TraceType> traceTypeFrom(int value);

// One line of text at a time, without its line end.
// Threading: write() may be called from any thread.
class TracerStream {
  public:
    virtual ~TracerStream() = default;
    virtual void write(const std::string& text) = 0;
};

// Standard error, one write and a flush per line on the calling thread.
class Console final : public TracerStream {
  public:
    void write(const std::string& text) override;
};

// Appends each line to the file at fpath. The write happens on the stream's own queue so that
// a caller (the main thread, a connection thread) never waits on the disk, while the lines of
// one thread still reach the file in the order they were written. A failed write is ignored.
// Destruction writes every line already handed over, then returns.
class File final : public TracerStream {
  public:
    explicit File(std::string fpath);
    void write(const std::string& text) override;

    const std::string fpath;

  private:
    WorkQueue queue_{"pointlane.tracer.file"};
};

// Discards every line.
class Network final : public TracerStream {
  public:
    void write(const std::string&) override {}
};

// Timestamped one-line diagnostics:
//   "HH:mm:ss.SSS (<thread>) (I) Type:function (L) text" and "HH:mm:ss.SSS (<thread>) (STOP)".
// Thread safe: stream and level are fixed at construction; lines are built on the caller's
// thread and handed to the stream.
class Tracer final {
  public:
    // console: standard error; file: a log in the temporary folder (or filePath); network: none.
    explicit Tracer(TraceType type, std::optional<std::string> filePath = std::nullopt);
    // Lines go to stream (tests pass their own); nullptr writes nothing.
    explicit Tracer(std::shared_ptr<TracerStream> stream);
    // Writes the stop line.
    ~Tracer();
    Tracer(const Tracer&) = delete;
    Tracer& operator=(const Tracer&) = delete;

    // subject: the unqualified type name of the object that reports ("AppDelegate").
    void info(std::string_view subject, const std::optional<std::string>& text,
              std::string_view function, int line);
    // The same with the subject's own type giving the name (any object: *this, a value).
    template <class Subject>
    requires(!std::is_convertible_v<const Subject&, std::string_view>) void info(
        const Subject& subject, const std::optional<std::string>& text, std::string_view function,
        int line) {
        info(std::string_view(unqualifiedTypeName(typeid(subject))), text, function, line);
    }
    void stop();

    const std::shared_ptr<TracerStream> stream;
    const int level = 0;
};

// The calling thread's text: a small number fixed on first use, "1m" for the main thread.
std::string threadInfo();

// The application's console tracer, created on first use.
Tracer& tr();

}  // namespace pointlane

// tracer.info with the calling function's name ("openDatabase()") and line filled in;
// POINTLANE_TRACE writes to the application's tracer tr().
#define POINTLANE_TRACE_TO(tracer, subject, text) \
    (tracer).info((subject), (text), std::string(__func__) + "()", __LINE__)
#define POINTLANE_TRACE(subject, text) POINTLANE_TRACE_TO(::pointlane::tr(), subject, text)
