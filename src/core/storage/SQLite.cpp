#include "storage/SQLite.h"

#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "storage/TextConversions.h"

namespace pointlane {

namespace {

void printLine(const std::string& line) {
    std::fputs(line.c_str(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

bool isValidUtf8(const unsigned char* bytes, int count) {
    int i = 0;
    while (i < count) {
        unsigned char c = bytes[i];
        int len;
        std::uint32_t cp;
        if (c < 0x80) {
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            len = 2;
            cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            len = 3;
            cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            len = 4;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + len > count) {
            return false;
        }
        for (int k = 1; k < len; ++k) {
            if ((bytes[i + k] & 0xC0) != 0x80) {
                return false;
            }
            cp = (cp << 6) | (bytes[i + k] & 0x3F);
        }
        if ((len == 2 && cp < 0x80) || (len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000) ||
            cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            return false;
        }
        i += len;
    }
    return true;
}

DataValue columnValue(sqlite3_stmt* stmt, int column) {
    switch (sqlite3_column_type(stmt, column)) {
        case SQLITE_INTEGER:
            return DataValue::integer(sqlite3_column_int64(stmt, column));
        case SQLITE_FLOAT:
            return DataValue::floating(sqlite3_column_double(stmt, column));
        case SQLITE_TEXT: {
            const auto* bytes =
                static_cast<const unsigned char*>(sqlite3_column_blob(stmt, column));
            const int count = sqlite3_column_bytes(stmt, column);
            if (bytes == nullptr || count <= 0 || !isValidUtf8(bytes, count)) {
                return DataValue::text(std::nullopt);
            }
            return DataValue::text(
                utf(std::string_view(reinterpret_cast<const char*>(bytes), count)));
        }
        case SQLITE_BLOB: {
            const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(stmt, column));
            const int count = sqlite3_column_bytes(stmt, column);
            if (bytes == nullptr || count <= 0) {
                return DataValue::blob(std::nullopt);
            }
            return DataValue::blob(Bytes(bytes, bytes + count));
        }
        default:
            return DataValue::null();
    }
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
    // Never destroyed: writers on the queue and late readers may still run at process exit.
    static SQLite* instance = new SQLite();
    return *instance;
}

SQLite::SQLite() {
    sqlite3_initialize();
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
    db_.store(handle);
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
    db_.store(handle);
    if (rc != SQLITE_OK) {
        {
            OperationLock lock(handle);
            checkError("create(at:_:)", __LINE__);
        }
        closeStep();
        return false;
    }
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
    if (error == 0 && !isValidUtf8(reinterpret_cast<const unsigned char*>(content.data()),
                                   static_cast<int>(content.size()))) {
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

void SQLite::finalizeCachedStatements() {
    OperationLock lock(db_.load());
    for (auto& [query, stmt] : insertStatements_) {
        sqlite3_finalize(stmt);
    }
    insertStatements_.clear();
}

void SQLite::closeStep() {
    sqlite3* db = db_.load();
    finalizeCachedStatements();
    if (db != nullptr && sqlite3_close(db) == SQLITE_OK) {
        db_.store(nullptr);
    }
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
    sqlite3_stmt* stmt = nullptr;
    const int rc = sqlite3_prepare_v2(db, query.c_str(), -1, &stmt, nullptr);
    SQLiteStatement statement(this, rc == SQLITE_OK ? stmt : nullptr);
    if (rc != SQLITE_OK && stmt != nullptr) {
        sqlite3_finalize(stmt);
    }
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
        sqlite3_stmt* stmt = statement.stmt();
        const int columns = sqlite3_column_count(stmt);
        if (columns > 0) {
            std::vector<std::string> names;
            names.reserve(columns);
            for (int c = 0; c < columns; ++c) {
                const char* name = sqlite3_column_name(stmt, c);
                names.emplace_back(name ? name : "");
            }
            while (sqlite3_step(stmt) == SQLITE_ROW) {
                RowData row;
                for (int c = 0; c < columns; ++c) {
                    row.set(SQLField{names[c], columnValue(stmt, c)});
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
    sqlite3_stmt* stmt = nullptr;
    if (auto it = insertStatements_.find(query); it != insertStatements_.end()) {
        stmt = it->second;
    } else {
        auto [status, statement] = fetchStatement(query);
        if (status != SQLiteStatusCode::ok) {
            checkError("insert(table:fields:)", __LINE__);
            return std::nullopt;
        }
        stmt = statement.release();
        insertStatements_.emplace(query, stmt);
    }
    SQLiteStatement bound(this, stmt);
    // The text above names the parameters in field order, so field i's ":" + name is
    // parameter i + 1: binding by position saves a name lookup per field on every insert.
    for (std::size_t i = 0; i < fields.size(); ++i) {
        bound.bind(static_cast<int>(i) + 1, fields[i]);
    }
    bound.release();
    sqlite3_step(stmt);
    // Like finalize, reset returns the error of the step that just ran: this insert's own.
    const int rc = sqlite3_reset(stmt);
    // Blobs are bound without copying; drop them before the caller's fields go away.
    sqlite3_clear_bindings(stmt);
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
        sqlite3_step(statement.stmt());
        ok = statement.finalize() == SQLITE_OK;
    }
    if (!ok) {
        checkError("update(table:fields:)", __LINE__);
        return false;
    }
    return true;
}

}  // namespace pointlane
