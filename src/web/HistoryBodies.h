#pragma once

#include <QByteArray>
#include <QObject>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "HistorySource.h"

namespace pointlane {

class WorkQueue;

// The history downloads (/history.json, /history.csv) for the HTTP side: each body is built
// on one worker thread, never on the Qt thread, and kept for the history's current version,
// per game and format, so that pages asking again and again while nothing changed cost one
// comparison of tags. Without a version function nothing is kept: each body is built anew.
//
// Threading: the Qt thread that made it, only; the source's functions run on the worker.
class HistoryBodies final : public QObject {
  public:
    enum class Format { json, csv };
    struct Body {
        std::shared_ptr<const std::string> text;  // nothing: no history to serve
        QByteArray etag;                          // empty without a version
    };
    using Done = std::function<void(const Body& body)>;

    // How many different bodies may be waiting for the worker at once.
    static constexpr std::size_t kMaxWaiting = 8;
    // How many bodies are kept.
    static constexpr std::size_t kMaxKept = 16;

    explicit HistoryBodies(HistorySource source, QObject* parent = nullptr);
    ~HistoryBodies() override;

    // Whether there is a history to serve in format at all.
    bool has(Format format) const;
    // The entity tag every body has now (quoted): it changes with the history's version and
    // from one run to the next; empty without a version.
    QByteArray etag() const;
    // Calls done on this thread with the body of (game, format): at once when it is kept,
    // otherwise once the worker has built it. False (done never called) when too many bodies
    // are waiting already.
    bool body(std::optional<std::int64_t> game, Format format, Done done);

    // Bodies built so far (for tests and benchmarks).
    std::uint64_t builds() const { return builds_; }

  private:
    using Key = std::pair<std::int64_t, Format>;  // game 0: every game
    struct Kept {
        std::uint64_t version = 0;
        std::shared_ptr<const std::string> text;
        std::uint64_t used = 0;
    };

    QByteArray tagOf(std::uint64_t version) const;
    void built(Key key, std::uint64_t version, std::shared_ptr<const std::string> text);

    HistorySource source_;
    QByteArray run_;  // tells this run's tags from an earlier run's
    std::map<Key, Kept> kept_;
    std::map<Key, std::vector<Done>> waiting_;
    std::uint64_t uses_ = 0;
    std::uint64_t builds_ = 0;
    std::unique_ptr<WorkQueue> worker_;  // last: gone (and joined) first
};

}  // namespace pointlane
