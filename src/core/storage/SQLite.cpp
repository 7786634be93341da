#include "storage/SQLite.h"

#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "storage/TextConversions.h"
#include "support/DeferredPosts.h"
#include "support/NoDestructor.h"
#include "support/ToolBox.h"

namespace pointlane {

namespace {

void printLine(const std::string& line) {
    std::fputs(line.c_str(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

}  // namespace

// Holds the connection's own mutex (serialized mode) across one operation: its calls, its
// success check and its report. Without it a read on another thread could change the
// connection-wide error code or message between this operation's finalize and its check.
// The mutex is recursive, so the library's own calls inside still take it.
class SQLite::OperationLock {
  public:
    explicit OperationLock(sqlite3* db) : mutex_(db ? sqlite3_db_mutex(db) : nullptr) {
        if (mutex_ != nullptr) {
            sqlite3_mutex_enter(mutex_);
        }
    }
    ~OperationLock() {
        if (mutex_ != nullptr) {
            sqlite3_mutex_leave(mutex_);
        }
    }
    OperationLock(const OperationLock&) = delete;
    OperationLock& operator=(const OperationLock&) = delete;

  private:
    sqlite3_mutex* mutex_;
};

SQLite& SQLite::shared() {
    static NoDestructor<SQLite> instance;
    return *instance;
}

void SQLiteCloser::operator()(sqlite3* db) const {
    sqlite3_close_v2(db);
}

SQLite::SQLite() {
    sqlite3_initialize();
    sqliteQueue_.setBatchRunner([this](std::vector<WorkQueue::Block>& batch) { runBatch(batch); });
}

SQLite::~SQLite() {
    sqlite3_shutdown();
}

void SQLite::async(std::function<void()> block) {
    sqliteQueue_.async(std::move(block));
}

void SQLite::drain() {
    sqliteQueue_.drain();
}

bool SQLite::isOpen() const {
    return db_.load() != nullptr;
}

void SQLite::setSchemaPath(std::optional<std::string> path) {
    std::lock_guard lock(schemaMutex_);
    schemaPath_ = std::move(path);
}

void SQLite::resetSchemaPath() {
    std::lock_guard lock(schemaMutex_);
    schemaPath_.reset();
}

std::optional<std::string> SQLite::schemaScriptPath() const {
    std::lock_guard lock(schemaMutex_);
    if (!schemaPath_ || !*schemaPath_ || (*schemaPath_)->empty()) {
        return std::nullopt;
    }
    return **schemaPath_;
}

bool SQLite::isValidDatabase(const std::string& path) const {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        return false;
    }
    std::array<char, 16> header{};
    const std::size_t got = std::fread(header.data(), 1, header.size(), file);
    std::fclose(file);
    return got == header.size() && header == SQLiteHeader;
}

bool SQLite::open(const std::string& path) {
    if (db_.load() != nullptr) {
        printLine("Error: the database is opened! open(at:):" + std::to_string(__LINE__));
        return false;
    }
    std::error_code ec;
    if (!std::filesystem::exists(path, ec) || std::filesystem::is_directory(path, ec)) {
        return false;
    }
    if (!isValidDatabase(path)) {
        return false;
    }
    resetKeeping();
    unsaved_.store(0);
    sqlite3* handle = nullptr;
    const int rc = sqlite3_open_v2(path.c_str(), &handle,
                                   SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX, nullptr);
    // A handle the library returned stays ours even when the open failed; close() releases it.
    adopt(handle);
    if (rc == SQLITE_OK) {
        configureConnection();
    }
    if (rc == SQLITE_OK && execQuery("PRAGMA foreign_keys = ON")) {
        return true;
    }
    OperationLock lock(handle);
    checkError("open(at:)", __LINE__);
    return false;
}

bool SQLite::create(const std::string& path, const std::function<bool(SQLite&)>& initializer) {
    if (db_.load() != nullptr) {
        printLine("The database is already opened!");
        return false;
    }
    std::error_code ec;
    if (std::filesystem::exists(path, ec) && !std::filesystem::is_directory(path, ec) &&
        isValidDatabase(path)) {
        printLine("The database exists!");
        return false;
    }
    resetKeeping();
    unsaved_.store(0);
    sqlite3* handle = nullptr;
    const int rc = sqlite3_open_v2(
        path.c_str(), &handle, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
        nullptr);
    adopt(handle);
    if (rc != SQLITE_OK) {
        {
            OperationLock lock(handle);
            checkError("create(at:_:)", __LINE__);
        }
        closeStep();
        return false;
    }
    configureConnection();
    if (!createTables()) {
        {
            OperationLock lock(handle);
            checkError("create(at:_:)", __LINE__);
        }
        closeStep();
        return false;
    }
    if (initializer && !initializer(*this)) {
        closeStep();
        return false;
    }
    if (!execQuery("PRAGMA foreign_keys = ON")) {
        {
            OperationLock lock(handle);
            checkError("create(at:_:)", __LINE__);
        }
        closeStep();
        return false;
    }
    return true;
}

bool SQLite::createTables() {
    const auto path = schemaScriptPath();
    std::error_code ec;
    if (!path || !std::filesystem::exists(*path, ec)) {
        return true;
    }
    const auto content = contentOfFileAt(*path);
    if (!content) {
        return true;
    }
    const std::string script = cleaned(removeComments(*content));
    std::size_t start = 0;
    while (start <= script.size()) {
        std::size_t end = script.find(';', start);
        if (end == std::string::npos) {
            end = script.size();
        }
        const std::string piece = trimmed(std::string_view(script).substr(start, end - start));
        start = end + 1;
        if (piece.empty()) {
            continue;
        }
        if (db_.load() == nullptr) {
            return false;
        }
        if (!execQuery(piece)) {
            return false;
        }
    }
    return true;
}

std::optional<std::string> SQLite::contentOfFileAt(const std::string& path) {
    // Read with the C calls so that every failure has its errno: a stream happily "opens" a
    // folder and then reads nothing, which would pass for an empty script.
    int error = 0;
    std::string content;
    if (std::FILE* file = std::fopen(path.c_str(), "rb")) {
        char buffer[4096];
        std::size_t got;
        while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
            content.append(buffer, got);
        }
        if (std::ferror(file)) {
            error = errno != 0 ? errno : EIO;
        }
        std::fclose(file);
    } else {
        error = errno != 0 ? errno : EIO;
    }
    // The script is UTF-8 text; bytes that are not are no script at all.
    if (error == 0 && !ToolBox::isValidUtf8(content)) {
        error = EILSEQ;
    }
    if (error != 0) {
        printLine("Error: " + std::string(std::strerror(error)) +
                  ". contentOfFileAt:" + std::to_string(__LINE__));
        return std::nullopt;
    }
    return content;
}

bool SQLite::execQuery(const std::string& query) {
    sqlite3* db = db_.load();
    if (db == nullptr) {
        return false;
    }
    OperationLock lock(db);
    const bool keeps = keepsWrites();
    if (keeps && broken_) {
        kept_.push_back({PendingWrite::Kind::statement, {}, {}, query});
        return true;
    }
    const int rc = sqlite3_exec(db, query.c_str(), nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK) {
        if (keeps) {
            kept_.push_back({PendingWrite::Kind::statement, {}, {}, query});
        }
        return true;
    }
    if (keeps && (isTransient(rc) || sqlite3_get_autocommit(db) != 0)) {
        breakTransaction(sqlite3_errmsg(db));
        kept_.push_back({PendingWrite::Kind::statement, {}, {}, query});
        return true;
    }
    printLine(query);
    checkError("execQuery", __LINE__);
    return false;
}

int SQLite::quietExec(const char* query, std::string* reason) {
    sqlite3* db = db_.load();
    if (db == nullptr) {
        if (reason != nullptr) {
            *reason = "the database is closed";
        }
        return SQLITE_MISUSE;
    }
    OperationLock lock(db);
    const int rc = sqlite3_exec(db, query, nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK && reason != nullptr) {
        *reason = sqlite3_errmsg(db);
    }
    return rc;
}

void SQLite::adopt(sqlite3* handle) {
    connection_.reset(handle);
    db_.store(handle);
}

void SQLite::configureConnection() {
    sqlite3* db = db_.load();
    OperationLock lock(db);
    sqlite3_busy_timeout(db, kBusyTimeoutMilliseconds);
    // Quiet on purpose: a file that is no database fails at the next statement, with the
    // report that belongs there; a file system without shared memory keeps its rollback
    // journal, and the store still works (readers elsewhere may then make it wait up to the
    // busy timeout).
    sqlite3_exec(db, "PRAGMA journal_mode = WAL", nullptr, nullptr, nullptr);
    sqlite3_exec(db, "PRAGMA synchronous = FULL", nullptr, nullptr, nullptr);
}

void SQLite::finalizeCachedStatements() {
    OperationLock lock(db_.load());
    insertStatements_.clear();
}

void SQLite::closeStep() {
    if (sqliteQueue_.isCurrent()) {
        // Closed from a block: what the batch stored so far is committed first, and a file
        // that keeps refusing it is given up on after a while.
        {
            std::lock_guard lock(retryMutex_);
            if (!giveUpAt_) {
                giveUpAt_ = std::chrono::steady_clock::now() + kQuitRetryTime;
            }
        }
        const bool recording = std::exchange(recording_, false);
        finishTransaction();
        recording_ = recording;
    }
    sqlite3* db = db_.load();
    const std::string file = databaseFile();
    finalizeCachedStatements();
    if (db != nullptr && sqlite3_close(db) == SQLITE_OK) {
        db_.store(nullptr);
        (void)connection_.release();  // closed just now
    }
    if (const std::size_t unsaved = unsaved_.load(); db != nullptr && unsaved > 0) {
        printLine("Pointlane couldn't save " + std::to_string(unsaved) + " records to " + file +
                  "; each is on standard error as one JSON line.");
    }
    resetKeeping();
}

void SQLite::resetKeeping() {
    // Called by the worker between batches, or while no block runs at all (open(), create()
    // and close() are called while no other thread uses the connection).
    kept_.clear();
    committedPosts_.clear();
    broken_ = false;
    givenUp_ = false;
    failureAnnounced_ = false;
    lastIds_.clear();
    std::lock_guard lock(retryMutex_);
    giveUpAt_.reset();
}

void SQLite::deliver(const std::vector<Event>& events) {
    for (const Event event : events) {
        post(event);
    }
}

void SQLite::runBatch(std::vector<WorkQueue::Block>& batch) {
    for (WorkQueue::Block& block : batch) {
        if (givenUp_ && db_.load() != nullptr) {
            // A quit gave up on earlier writes: later ones may refer to them, so they are
            // written out after them, never stored without them.
            broken_ = true;
        }
        if (!inTransaction_ && !broken_ && db_.load() != nullptr) {
            std::string reason;
            const int rc = quietExec("BEGIN IMMEDIATE", &reason);
            inTransaction_ = rc == SQLITE_OK;
            if (isTransient(rc)) {
                breakTransaction(reason);  // a lock held too long, a read-only file
            }
        }
        const bool isolated = inTransaction_ && quietExec("SAVEPOINT block") == SQLITE_OK;
        const std::size_t mark = kept_.size();
        recording_ = inTransaction_ || broken_;
        bool ran;
        std::vector<Event> posts;
        {
            DeferredPosts deferred;
            ran = sqliteQueue_.runReporting(block);
            posts = deferred.take();
        }
        recording_ = false;
        block = nullptr;
        if (!inTransaction_ && !broken_) {
            // No transaction (no database, or the block closed it): its rows, if any, are
            // already committed.
            if (ran) {
                deliver(posts);
            }
            continue;
        }
        sqlite3* db = db_.load();
        if (inTransaction_ && (db == nullptr || sqlite3_get_autocommit(db) != 0)) {
            // The library rolled the whole transaction back: what it wrote is kept.
            breakTransaction("the transaction was rolled back");
        }
        if (!ran) {
            // A block that throws is undone alone: its rows and its kept writes go.
            kept_.resize(mark);
            if (isolated && inTransaction_) {
                quietExec("ROLLBACK TO block");
            }
        }
        if (isolated && inTransaction_) {
            quietExec("RELEASE block");
        }
        if (ran) {
            committedPosts_.insert(committedPosts_.end(), posts.begin(), posts.end());
        }
    }
    finishTransaction();
}

void SQLite::finishTransaction() {
    if (inTransaction_) {
        inTransaction_ = false;
        std::string reason;
        if (quietExec("COMMIT", &reason) == SQLITE_OK) {
            committed(kept_.size());
            return;
        }
        breakTransaction(reason);
    }
    if (!broken_) {
        return;
    }
    if (kept_.empty() && !givenUp_) {
        // Nothing was written: nothing to keep.
        committed(0);
        return;
    }
    announceFailure();
    auto delay = kFirstRetryDelay;
    for (;;) {
        if (quitDeadlinePassed()) {
            writeOutKept();
            return;
        }
        waitBeforeRetry(delay);
        delay = std::min(delay * 2, kLongestRetryDelay);
        std::string reason;
        if (storeKept(reason)) {
            committed(kept_.size());
            return;
        }
        failureReason_ = reason;
    }
}

bool SQLite::isTransient(int code) {
    switch (code & 0xff) {
        case SQLITE_FULL:
        case SQLITE_IOERR:
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
        case SQLITE_READONLY:
        case SQLITE_CANTOPEN:
        case SQLITE_NOMEM:
        case SQLITE_PROTOCOL:
            return true;
        default:
            return false;
    }
}

void SQLite::breakTransaction(const std::string& reason) {
    sqlite3* db = db_.load();
    if (db != nullptr && sqlite3_get_autocommit(db) == 0) {
        quietExec("ROLLBACK");
    }
    inTransaction_ = false;
    broken_ = true;
    failureReason_ = reason;
}

std::int64_t SQLite::keepInsert(const std::string& table, const std::vector<SQLField>& fields,
                                std::optional<std::int64_t> id) {
    PendingWrite write{PendingWrite::Kind::insert, table, {}, {}};
    write.fields.reserve(fields.size() + 1);
    const auto given = std::find_if(fields.begin(), fields.end(),
                                    [](const SQLField& field) { return field.name == "id"; });
    if (given != fields.end() && given->data.integerValue()) {
        id = *given->data.integerValue();
    } else {
        if (!id) {
            id = reserveId(table);
        }
        write.fields.push_back({"id", DataValue::integer(*id)});
    }
    write.fields.insert(write.fields.end(), fields.begin(), fields.end());
    kept_.push_back(std::move(write));
    std::int64_t& last = lastIds_[table];
    last = std::max(last, *id);
    return *id;
}

std::int64_t SQLite::reserveId(const std::string& table) {
    // Above the highest stored id (what the library would hand out next) and above every id
    // handed out for rows that are only kept so far.
    std::int64_t top = lastIds_[table];
    auto [status, statement] = fetchStatement("SELECT max(id) FROM " + table);
    if (status == SQLiteStatusCode::ok && statement.step() == SQLITE_ROW) {
        top = std::max(top, statement.columnValue(0).integerValue().value_or(0));
    }
    return top + 1;
}

int SQLite::apply(const PendingWrite& write) {
    sqlite3* db = db_.load();
    if (write.kind == PendingWrite::Kind::statement) {
        return quietExec(write.sql.c_str());
    }
    auto [status, statement] = fetchStatement(write.statementText());
    if (status != SQLiteStatusCode::ok) {
        return db != nullptr ? sqlite3_errcode(db) : SQLITE_MISUSE;
    }
    for (const SQLField& field : write.fields) {
        statement.bind(field);
    }
    statement.step();
    return statement.finalize();
}

bool SQLite::storeKept(std::string& reason) {
    sqlite3* db = db_.load();
    if (db == nullptr) {
        reason = "the database is closed";
        return false;
    }
    OperationLock lock(db);
    if (quietExec("BEGIN IMMEDIATE", &reason) != SQLITE_OK) {
        return false;
    }
    std::vector<PendingWrite> left;
    for (const PendingWrite& write : kept_) {
        const int rc = apply(write);
        if (rc == SQLITE_OK) {
            continue;
        }
        if (isTransient(rc) || sqlite3_get_autocommit(db) != 0) {
            reason = sqlite3_errmsg(db);
            if (sqlite3_get_autocommit(db) == 0) {
                quietExec("ROLLBACK");
            }
            return false;
        }
        // Refused for what it is (a constraint): it could never be stored.
        checkError("storeKept", __LINE__);
        printLine("Pointlane left out a record it couldn't store: " + write.jsonLine());
    }
    if (quietExec("COMMIT", &reason) != SQLITE_OK) {
        if (sqlite3_get_autocommit(db) == 0) {
            quietExec("ROLLBACK");
        }
        return false;
    }
    return true;
}

void SQLite::committed(std::size_t stored) {
    kept_.clear();
    broken_ = false;
    deliver(std::exchange(committedPosts_, {}));
    if (failureAnnounced_) {
        failureAnnounced_ = false;
        printLine("Pointlane saves to " + databaseFile() + " again; " + std::to_string(stored) +
                  " records kept meanwhile are stored.");
        notifyStatus(false, {});
    }
}

void SQLite::announceFailure() {
    if (failureAnnounced_) {
        return;
    }
    failureAnnounced_ = true;
    printLine("Pointlane can't save to " + databaseFile() + ": " + failureReason_ + "; keeping " +
              std::to_string(kept_.size()) + " records and retrying.");
    notifyStatus(true, failureReason_);
}

bool SQLite::quitDeadlinePassed() {
    std::lock_guard lock(retryMutex_);
    return giveUpAt_ && std::chrono::steady_clock::now() >= *giveUpAt_;
}

void SQLite::waitBeforeRetry(std::chrono::milliseconds delay) {
    std::unique_lock lock(retryMutex_);
    auto until = std::chrono::steady_clock::now() + delay;
    if (giveUpAt_ && *giveUpAt_ < until) {
        until = *giveUpAt_;
    }
    retryWake_.wait_until(lock, until, [&] {
        return std::chrono::steady_clock::now() >= until ||
               (giveUpAt_ && std::chrono::steady_clock::now() >= *giveUpAt_);
    });
}

void SQLite::writeOutKept() {
    // One line per record, each written whole, so that a reader can take them back in.
    for (const PendingWrite& write : kept_) {
        const std::string line = write.jsonLine() + "\n";
        std::fwrite(line.data(), 1, line.size(), stderr);
    }
    std::fflush(stderr);
    unsaved_ += kept_.size();
    givenUp_ = true;
    kept_.clear();
    committedPosts_.clear();
    broken_ = false;
}

std::string SQLite::databaseFile() const {
    sqlite3* db = db_.load();
    const char* file = db != nullptr ? sqlite3_db_filename(db, "main") : nullptr;
    return file != nullptr ? file : "the database";
}

void SQLite::setWriteStatusListener(WriteStatusListener listener) {
    std::lock_guard lock(listenerMutex_);
    listener_ = std::move(listener);
}

void SQLite::notifyStatus(bool failing, const std::string& reason) {
    WriteStatusListener listener;
    {
        std::lock_guard lock(listenerMutex_);
        listener = listener_;
    }
    if (listener) {
        listener(failing, reason);
    }
}

void SQLite::close() {
    closeStep();
}

void SQLite::closeAfterPendingWork(std::chrono::milliseconds retryTime) {
    {
        std::lock_guard lock(retryMutex_);
        const auto deadline = std::chrono::steady_clock::now() + retryTime;
        if (!giveUpAt_ || deadline < *giveUpAt_) {
            giveUpAt_ = deadline;
        }
    }
    retryWake_.notify_all();
    if (sqliteQueue_.isCurrent()) {
        closeStep();
        return;
    }
    sqliteQueue_.async([this] { closeStep(); });
    sqliteQueue_.drain();
}

void SQLite::checkError(const std::string& function, int line) {
    sqlite3* db = db_.load();
    const char* message = sqlite3_errmsg(db);
    const int code = sqlite3_errcode(db);
    printLine("SQLite: " + function + " (" + std::to_string(line) +
              "): " + (message ? message : "") + " (" + std::to_string(code) + ")");
}

std::pair<SQLiteStatusCode, SQLiteStatement> SQLite::fetchStatement(const std::string& query) {
    sqlite3* db = db_.load();
    if (db == nullptr) {
        return {SQLiteStatusCode::notReadyToWork, SQLiteStatement()};
    }
    int rc = SQLITE_OK;
    SQLiteStatement statement = SQLiteStatement::prepare(this, db, query, rc);
    return {sqliteStatusCodeFrom(rc).value_or(SQLiteStatusCode::error), std::move(statement)};
}

std::optional<QueryResult> SQLite::select(const std::string& query) {
    return runSelect(query, nullptr);
}

std::optional<QueryResult> SQLite::select(const std::string& query,
                                          const std::vector<SQLField>& fields) {
    return runSelect(query, &fields);
}

std::optional<QueryResult> SQLite::runSelect(const std::string& query,
                                             const std::vector<SQLField>* fields) {
    OperationLock lock(db_.load());
    auto [status, statement] = fetchStatement(query);
    QueryResult result;
    bool ok = status == SQLiteStatusCode::ok;
    if (ok) {
        if (fields != nullptr) {
            for (const SQLField& field : *fields) {
                statement.bind(field);
            }
        }
        const int columns = statement.columnCount();
        if (columns > 0) {
            std::vector<std::string> names;
            names.reserve(static_cast<std::size_t>(columns));
            for (int c = 0; c < columns; ++c) {
                names.push_back(statement.columnName(c));
            }
            while (statement.step() == SQLITE_ROW) {
                RowData row;
                for (int c = 0; c < columns; ++c) {
                    row.set(SQLField{names[static_cast<std::size_t>(c)], statement.columnValue(c)});
                }
                result.array.push_back(std::move(row));
            }
        }
        // The finalize call returns the error of the last step, if any: this operation's own.
        ok = statement.finalize() == SQLITE_OK;
    }
    if (!ok) {
        checkError("select(query:)", __LINE__);
        return std::nullopt;
    }
    return result;
}

std::optional<std::int64_t> SQLite::insert(const std::string& table,
                                           const std::vector<SQLField>& fields) {
    if (fields.empty()) {
        return std::nullopt;
    }
    // Built in one buffer: this runs for every stored record, and the text is also the key of
    // the statement kept prepared for it.
    std::string query;
    query.reserve(40 + table.size() + 4 * fields.size() * (fields.front().name.size() + 2));
    query.append("INSERT INTO ").append(table).append(" (");
    for (std::size_t i = 0; i < fields.size(); ++i) {
        query.append(i == 0 ? "" : ",").append(fields[i].name);
    }
    query.append(") VALUES (");
    for (std::size_t i = 0; i < fields.size(); ++i) {
        query.append(i == 0 ? ":" : ",:").append(fields[i].name);
    }
    query.append(")");
    sqlite3* db = db_.load();
    OperationLock lock(db);
    if (db == nullptr) {
        checkError("insert(table:fields:)", __LINE__);
        return std::nullopt;
    }
    const bool keeps = keepsWrites();
    if (keeps && broken_) {
        return keepInsert(table, fields, std::nullopt);
    }
    auto cached = insertStatements_.find(query);
    if (cached == insertStatements_.end()) {
        auto [status, statement] = fetchStatement(query);
        if (status != SQLiteStatusCode::ok) {
            checkError("insert(table:fields:)", __LINE__);
            return std::nullopt;
        }
        cached = insertStatements_.emplace(query, std::move(statement)).first;
    }
    SQLiteStatement& statement = cached->second;
    // The text above names the parameters in field order, so field i's ":" + name is
    // parameter i + 1: binding by position saves a name lookup per field on every insert.
    for (std::size_t i = 0; i < fields.size(); ++i) {
        statement.bind(static_cast<int>(i) + 1, fields[i]);
    }
    statement.step();
    // Like finalize, reset returns the error of the step that just ran: this insert's own. It
    // also drops the bindings (blobs are bound without copying) before the caller's fields go.
    const int rc = statement.reset();
    if (rc != SQLITE_OK) {
        if (keeps && (isTransient(rc) || sqlite3_get_autocommit(db) != 0)) {
            breakTransaction(sqlite3_errmsg(db));
            return keepInsert(table, fields, std::nullopt);
        }
        checkError("insert(table:fields:)", __LINE__);
        return std::nullopt;
    }
    const std::int64_t id = sqlite3_last_insert_rowid(db);
    if (keeps) {
        keepInsert(table, fields, id);
    }
    return id;
}

bool SQLite::replace(const std::string& table, const std::vector<SQLField>& fields) {
    if (fields.empty()) {
        return false;
    }
    return write(PendingWrite{PendingWrite::Kind::replace, table, fields, {}}, "replace");
}

bool SQLite::write(PendingWrite change, const char* operation) {
    sqlite3* db = db_.load();
    OperationLock lock(db);
    if (db == nullptr) {
        checkError(operation, __LINE__);
        return false;
    }
    const bool keeps = keepsWrites();
    if (keeps && broken_) {
        kept_.push_back(std::move(change));
        return true;
    }
    const int rc = apply(change);
    if (rc == SQLITE_OK) {
        if (keeps) {
            kept_.push_back(std::move(change));
        }
        return true;
    }
    if (keeps && (isTransient(rc) || sqlite3_get_autocommit(db) != 0)) {
        breakTransaction(sqlite3_errmsg(db));
        kept_.push_back(std::move(change));
        return true;
    }
    checkError(operation, __LINE__);
    return false;
}

bool SQLite::update(const std::string& table, const std::vector<SQLField>& fields) {
    if (fields.empty()) {
        return false;
    }
    if (!fields.front().data.integerValue()) {
        printLine("Error: a field id not found. update(table:fields:):" + std::to_string(__LINE__));
        return false;
    }
    return write(PendingWrite{PendingWrite::Kind::update, table, fields, {}},
                 "update(table:fields:)");
}

}  // namespace pointlane
