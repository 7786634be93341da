#include "HistoryBodies.h"

#include <QRandomGenerator>

#include "support/WorkQueue.h"

namespace pointlane {

HistoryBodies::HistoryBodies(HistorySource source, QObject* parent)
    : QObject(parent),
      source_(std::move(source)),
      run_(QByteArray::number(QRandomGenerator::global()->generate(), 36)),
      worker_(std::make_unique<WorkQueue>("web.history")) {}

HistoryBodies::~HistoryBodies() {
    // Joins the worker; what it still posts here is dropped with this object.
    worker_.reset();
}

bool HistoryBodies::has(Format format) const {
    return static_cast<bool>(format == Format::csv ? source_.csv : source_.json);
}

QByteArray HistoryBodies::tagOf(std::uint64_t version) const {
    return '"' + run_ + '-' + QByteArray::number(static_cast<qulonglong>(version)) + '"';
}

QByteArray HistoryBodies::etag() const {
    return source_.version ? tagOf(source_.version()) : QByteArray();
}

bool HistoryBodies::body(std::optional<std::int64_t> game, Format format, Done done) {
    const Key key{game.value_or(0), format};
    const std::optional<std::uint64_t> version =
        source_.version ? std::optional<std::uint64_t>(source_.version()) : std::nullopt;
    if (version) {
        if (auto found = kept_.find(key);
            found != kept_.end() && found->second.version == *version) {
            found->second.used = ++uses_;
            done({found->second.text, tagOf(*version)});
            return true;
        }
    }
    if (auto found = waiting_.find(key); found != waiting_.end()) {
        found->second.push_back(std::move(done));
        return true;
    }
    if (waiting_.size() >= kMaxWaiting) {
        return false;
    }
    waiting_[key].push_back(std::move(done));
    const auto& build = format == Format::csv ? source_.csv : source_.json;
    worker_->async([this, build, game, key, version] {
        std::shared_ptr<const std::string> text;
        if (build) {
            if (auto made = build(game)) {
                text = std::make_shared<const std::string>(std::move(*made));
            }
        }
        QMetaObject::invokeMethod(
            this, [this, key, version, text] { built(key, version.value_or(0), text); },
            Qt::QueuedConnection);
    });
    return true;
}

void HistoryBodies::built(Key key, std::uint64_t version, std::shared_ptr<const std::string> text) {
    ++builds_;
    const QByteArray tag = source_.version ? tagOf(version) : QByteArray();
    if (source_.version && text) {
        kept_[key] = {version, text, ++uses_};
        if (kept_.size() > kMaxKept) {
            auto oldest = kept_.begin();
            for (auto it = kept_.begin(); it != kept_.end(); ++it) {
                if (it->second.used < oldest->second.used) {
                    oldest = it;
                }
            }
            kept_.erase(oldest);
        }
    }
    auto waiting = waiting_.find(key);
    if (waiting == waiting_.end()) {
        return;
    }
    std::vector<Done> callbacks = std::move(waiting->second);
    waiting_.erase(waiting);
    for (const Done& done : callbacks) {
        done({text, tag});
    }
}

}  // namespace pointlane
