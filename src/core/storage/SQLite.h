#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "storage/PendingWrite.h"
#include "storage/SQLiteHandle.h"
#include "storage/SQLiteStatement.h"
#include "storage/SQLiteStatusCode.h"
#include "storage/Values.h"
#include "support/Event.h"
#include "support/NoDestructor.h"
#include "support/WorkQueue.h"

struct sqlite3;

namespace pointlane {

// The one connection to the database file, reached through sqlm(). Every failure prints one
// report line on standard output:
//   "SQLite: " + operation + " (" + line + "): " + message + " (" + code + ")".
//
// Threading: the connection is opened in SQLite's serialized mode, so reads on one thread may
// overlap a write on the work queue; each operation's success check is its own. open(),
// create() and close() run when no other thread uses the connection. Record writes are
// submitted with async() and run one at a time, in submission order.
//
// Group commit: the queue's worker takes every block waiting at that moment and runs them
// inside one transaction, each block inside its own savepoint (a block that throws is rolled
// back alone), and commits once; the change announcements the blocks post are held until that
// commit. At most WorkQueue::kDefaultCapacity blocks wait: a submitter on any other thread
// waits for room.
//
// Nothing a block wrote is dropped because the file can't be written (a full disk, an I/O
// error, a lock held too long, a read-only file): every write a block makes through insert(),
// replace(), update() or execQuery() is kept as a PendingWrite until its transaction commits.
// When a write or the commit fails that way, the transaction is rolled back, the rest of the
// batch is only kept (an insert gets the row id the row will have: ids are handed out in
// order and stored explicitly), and the kept writes are stored again, in order, in one
// transaction, after 50 ms, then after twice as long each time up to 2 s, until it commits.
// The worker takes no other block meanwhile, so the queue's bound still holds. The first
// failure prints "Pointlane can't save to <path>: <reason>; keeping N records and retrying."
// and the recovery "Pointlane saves to <path> again; N records kept meanwhile are stored.";
// the write status listener hears both. A write that fails for what it is (a constraint) is
// reported and left out, as before.
//
// A quit (closeAfterPendingWork) keeps trying for a bounded time; then every write still kept,
// and every write of the blocks still waiting (they may refer to those), is written on
// standard error as one JSON line (PendingWrite::jsonLine), and the close says how many there
// were.
//
// A block runs once, whatever happens to its transaction: what it sets from the ids it got
// (the game's current game and deal) stays right, because a kept row is stored with exactly
// the id its insert returned, and a later block's links to it hold.
//
// The file is kept in WAL mode with synchronous=FULL (every commit is on disk when it returns)
// and a busy timeout, so another process reading the file never makes a write fail.
class SQLite final {
  public:
    // The single instance, created on first use and never destroyed.
    static SQLite& shared();

    SQLite(const SQLite&) = delete;
    SQLite& operator=(const SQLite&) = delete;

    // How long a statement waits for another connection's lock before it fails.
    static constexpr int kBusyTimeoutMilliseconds = 5000;

    // Schedules block on the database queue ("sqlite.manager"); returns at once unless the
    // queue is full, then once there is room.
    void async(std::function<void()> block);
    // Waits until every block submitted so far has run (shutdown, tests).
    void drain();

    // How long a quit keeps trying to store what the file refuses, and the retry delays.
    static constexpr std::chrono::milliseconds kQuitRetryTime{10000};
    static constexpr std::chrono::milliseconds kFirstRetryDelay{50};
    static constexpr std::chrono::milliseconds kLongestRetryDelay{2000};

    // Hears when stores start failing (true, the library's reason) and when they succeed
    // again (false, ""). Called on the database queue, never under a lock of this object.
    using WriteStatusListener = std::function<void(bool failing, const std::string& reason)>;
    void setWriteStatusListener(WriteStatusListener listener);
    // Writes written out unstored (on standard error) since the connection was opened.
    std::size_t unsavedCount() const { return unsaved_.load(); }

    // True when the file's first 16 bytes are "SQLite format 3" and a zero byte.
    bool isValidDatabase(const std::string& path) const;
    // Opens an existing database (never creates one) with foreign keys on.
    bool open(const std::string& path);
    // Creates the database from the schema script, runs initializer (when given) and switches
    // foreign keys on; on failure the connection is closed.
    bool create(const std::string& path, const std::function<bool(SQLite&)>& initializer = nullptr);
    // Runs SQL text with sqlite3_exec; rows are discarded.
    bool execQuery(const std::string& query);
    // Closes the connection if one is open and the library accepts.
    void close();
    // close() run on the database queue behind every block submitted so far, waiting for it:
    // the pending writes are stored first, no block is running while the connection closes,
    // and blocks submitted later find it closed. The quit paths use this.
    // Stores that keep failing are given up after retryTime and written out instead.
    void closeAfterPendingWork(std::chrono::milliseconds retryTime = kQuitRetryTime);
    // True while a connection is open.
    bool isOpen() const;

    // Where create() reads the schema script from; the application decides and hands it
    // over (nothing or empty: no script, the database is created empty).
    void setSchemaPath(std::optional<std::string> path);
    // Back to no script.
    void resetSchemaPath();

    // ---- statements, values and rows ----

    // Prepares the first statement of query: notReadyToWork without an open database, else
    // the prepare call's code; the statement holds the handle only on success.
    std::pair<SQLiteStatusCode, SQLiteStatement> fetchStatement(const std::string& query);
    // Rows of query, text read back in natural form; an empty result when there are none,
    // nothing on failure (reported). A statement without result columns is never run.
    std::optional<QueryResult> select(const std::string& query);
    // The same with named parameters (":" + field name) bound like insert's fields, so that
    // values never become part of the statement text.
    std::optional<QueryResult> select(const std::string& query,
                                      const std::vector<SQLField>& fields);
    // "INSERT INTO table (a,b) VALUES (:a,:b)"; the new row id, nothing on failure (reported).
    // The table must have an integer "id" key: a row kept while the file can't be written
    // gets its id here and is stored with it.
    std::optional<std::int64_t> insert(const std::string& table,
                                       const std::vector<SQLField>& fields);
    // "INSERT OR REPLACE INTO table (a,b) VALUES (:a,:b)": the row replaces the one with the
    // same key; true when stored (or kept for storing).
    bool replace(const std::string& table, const std::vector<SQLField>& fields);
    // "UPDATE table SET id=:id,... WHERE id=:id"; the first field must be the integer key.
    bool update(const std::string& table, const std::vector<SQLField>& fields);

  private:
    friend class NoDestructor<SQLite>;
    SQLite();
    ~SQLite();

    class OperationLock;

    bool createTables();
    std::optional<std::string> contentOfFileAt(const std::string& path);
    std::optional<std::string> schemaScriptPath() const;
    void checkError(const std::string& function, int line);
    bool execLocked(const std::string& query);
    std::optional<QueryResult> runSelect(const std::string& query,
                                         const std::vector<SQLField>* fields);
    void closeStep();
    void finalizeCachedStatements();
    // Adopts the handle the open call returned (also a failed one) as the connection.
    void adopt(sqlite3* handle);
    // Busy timeout, WAL journal, full sync: a reader elsewhere never costs a write.
    void configureConnection();
    // The worker's side of group commit.
    void runBatch(std::vector<WorkQueue::Block>& batch);
    // Commits the open transaction, or stores the kept writes again until they commit (or a
    // quit gives up on them).
    void finishTransaction();
    static void deliver(const std::vector<Event>& events);

    // ---- keeping writes while the file can't be written (worker only) ----

    // A block of a batch is running on the worker: its writes are kept.
    bool keepsWrites() const { return sqliteQueue_.isCurrent() && recording_; }
    // Full disk, I/O error, busy or locked, read-only, no memory: worth trying again.
    static bool isTransient(int code);
    // The transaction can't go on: rolled back (what it wrote is kept), later writes only kept.
    void breakTransaction(const std::string& reason);
    // The statement write (or a kept one) of a block; what the public calls return.
    std::int64_t keepInsert(const std::string& table, const std::vector<SQLField>& fields,
                            std::optional<std::int64_t> id);
    // The id the next row of table gets: above every stored and every kept one.
    std::int64_t reserveId(const std::string& table);
    // A replace or an update, run (and kept) like insert; operation names it in reports.
    bool write(PendingWrite change, const char* operation);
    // Runs one write quietly; the library's result code.
    int apply(const PendingWrite& write);
    // One attempt at storing every kept write in one transaction; reason says why not.
    bool storeKept(std::string& reason);
    void committed(std::size_t stored);
    void announceFailure();
    bool quitDeadlinePassed();
    void waitBeforeRetry(std::chrono::milliseconds delay);
    void writeOutKept();
    std::string databaseFile() const;
    void notifyStatus(bool failing, const std::string& reason);
    void resetKeeping();
    int quietExec(const char* query, std::string* reason = nullptr);

    static constexpr std::array<char, 16> SQLiteHeader{'S', 'Q', 'L', 'i', 't', 'e', ' ', 'f',
                                                       'o', 'r', 'm', 'a', 't', ' ', '3', '\0'};
    WorkQueue sqliteQueue_{"sqlite.manager"};
    // The owner of the connection. Set and cleared only by open(), create() and close(), which
    // run while no other thread uses the connection.
    SQLiteHandle connection_;
    // The same handle for the other threads' operations; atomic so that a reader never sees a
    // torn value. Never closed through this view.
    std::atomic<sqlite3*> db_{nullptr};
    // Insert statements kept prepared for the next insert into the same table with the same
    // columns (the records insert the same shapes over and over); guarded by the connection's
    // own mutex and finalized before the connection closes.
    std::unordered_map<std::string, SQLiteStatement> insertStatements_;
    // Group commit state, touched only by the queue's worker.
    bool inTransaction_ = false;
    std::vector<Event> committedPosts_;  // posts of the blocks in the open transaction
    bool recording_ = false;             // a block of a batch is running
    bool broken_ = false;                // the transaction failed: writes are only kept
    bool givenUp_ = false;               // a quit wrote kept writes out: the rest follow them
    std::vector<PendingWrite> kept_;     // the writes of the open (or failed) transaction
    std::unordered_map<std::string, std::int64_t> lastIds_;  // highest id handed out per table
    bool failureAnnounced_ = false;
    std::string failureReason_;
    std::atomic<std::size_t> unsaved_{0};
    // The quit's deadline for giving up on kept writes; guarded by retryMutex_.
    std::mutex retryMutex_;
    std::condition_variable retryWake_;
    std::optional<std::chrono::steady_clock::time_point> giveUpAt_;
    std::mutex listenerMutex_;
    WriteStatusListener listener_;  // guarded by listenerMutex_
    mutable std::mutex schemaMutex_;
    std::optional<std::optional<std::string>> schemaPath_;  // guarded by schemaMutex_
};

// The application-wide database object, the same as SQLite::shared().
inline SQLite& sqlm() {
    return SQLite::shared();
}

}  // namespace pointlane
