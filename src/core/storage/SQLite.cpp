#include "storage/SQLite.h"

#include <sqlite3.h>
#include <unistd.h>

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
    const int rc = sqlite3_exec(db, query.c_str(), nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK) {
        return true;
    }
    printLine(query);
    checkError("execQuery", __LINE__);
    return false;
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
        // Closed from a block: what the batch stored so far is committed first.
        commitBatch();
    }
    sqlite3* db = db_.load();
    finalizeCachedStatements();
    if (db != nullptr && sqlite3_close(db) == SQLITE_OK) {
        db_.store(nullptr);
        (void)connection_.release();  // closed just now
    }
}

void SQLite::deliver(const std::vector<Event>& events) {
    for (const Event event : events) {
        post(event);
    }
}

void SQLite::runBatch(std::vector<WorkQueue::Block>& batch) {
    for (WorkQueue::Block& block : batch) {
        if (!inTransaction_ && db_.load() != nullptr) {
            inTransaction_ = execQuery("BEGIN IMMEDIATE");
        }
        const bool isolated = inTransaction_ && execQuery("SAVEPOINT block");
        bool ran;
        std::vector<Event> posts;
        {
            DeferredPosts deferred;
            ran = sqliteQueue_.runReporting(block);
            posts = deferred.take();
        }
        block = nullptr;
        sqlite3* db = db_.load();
        if (!inTransaction_) {
            // No transaction (no database, or the block closed it): its rows, if any, are
            // already committed.
            if (ran) {
                deliver(posts);
            }
            continue;
        }
        if (db == nullptr || sqlite3_get_autocommit(db) != 0) {
            // The library rolled the whole transaction back (a full disk, an I/O error): the
            // rows of this batch so far are gone, and so are their announcements.
            printLine("SQLite: runBatch (" + std::to_string(__LINE__) +
                      "): the transaction was rolled back; " +
                      std::to_string(committedPosts_.size() + posts.size()) +
                      " change announcements dropped");
            inTransaction_ = false;
            committedPosts_.clear();
            continue;
        }
        if (!ran && isolated) {
            execQuery("ROLLBACK TO block");
        }
        if (isolated) {
            execQuery("RELEASE block");
        }
        if (ran) {
            committedPosts_.insert(committedPosts_.end(), posts.begin(), posts.end());
        }
    }
    commitBatch();
}

void SQLite::commitBatch() {
    if (!inTransaction_) {
        return;
    }
    inTransaction_ = false;
    std::vector<Event> posts = std::exchange(committedPosts_, {});
    if (execQuery("COMMIT")) {
        deliver(posts);
        return;
    }
    sqlite3* db = db_.load();
    if (db != nullptr && sqlite3_get_autocommit(db) == 0) {
        execQuery("ROLLBACK");
    }
    printLine("SQLite: commitBatch (" + std::to_string(__LINE__) +
              "): the batch was rolled back; " + std::to_string(posts.size()) +
              " change announcements dropped");
}

void SQLite::close() {
    closeStep();
}

void SQLite::closeAfterPendingWork() {
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
        checkError("insert(table:fields:)", __LINE__);
        return std::nullopt;
    }
    return sqlite3_last_insert_rowid(db);
}

bool SQLite::update(const std::string& table, const std::vector<SQLField>& fields) {
    if (fields.empty()) {
        return false;
    }
    const SQLField& key = fields.front();
    const auto keyValue = key.data.integerValue();
    if (!keyValue) {
        printLine("Error: a field id not found. update(table:fields:):" + std::to_string(__LINE__));
        return false;
    }
    std::string assignments;
    for (const SQLField& field : fields) {
        if (!assignments.empty()) {
            assignments += ',';
        }
        assignments += field.name + "=:" + field.name;
    }
    const std::string query = "UPDATE " + table + " SET " + assignments + " WHERE " + key.name +
                              "=" + std::to_string(*keyValue);
    OperationLock lock(db_.load());
    auto [status, statement] = fetchStatement(query);
    bool ok = status == SQLiteStatusCode::ok;
    if (ok) {
        for (const SQLField& field : fields) {
            statement.bind(field);
        }
        statement.step();
        ok = statement.finalize() == SQLITE_OK;
    }
    if (!ok) {
        checkError("update(table:fields:)", __LINE__);
        return false;
    }
    return true;
}

}  // namespace pointlane
