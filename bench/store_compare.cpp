// Runs identical workloads on this library's BTree and on SQLite, Berkeley DB (B-tree access
// method) and LMDB, and prints one table: operations per second, the ratio to each peer, read and
// write system calls per operation, bytes on disk per entry, and each store's peak resident size.
//
// Every store writes to the operating system's cache and never syncs per operation. Each store runs
// in a child process of its own, so its peak resident size is its own.
//
// `ours` runs with the page cache on (its default size), `ours-nocache` with it off, `ours-batch`
// like `ours` but in crash-safe mode with each fill and delete run in one batch, the counterpart
// of `sqlite-all`'s one transaction (its commit syncs, which `sqlite-all` does not). `bulkload`
// builds a store from unsorted entries, the sort included, each store its fastest way, in a child
// process of its own (its peak resident size is reported apart).
//
//   store_compare [--sizes 100000,1000000] [--dir /tmp]
//                 [--stores ours,ours-nocache,ours-batch,sqlite-op,sqlite-all,bdb,lmdb]
#include <db.h>
#include <lmdb.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btreetools.h"

namespace {

namespace fs = std::filesystem;
constexpr int kKeyBytes = 16;

// Keys are 16 bytes: a fixed prefix and a zero-padded decimal number, so order is numeric order.
// Made in place, without formatting or allocating: the harness should cost little next to the
// stores.
struct Key {
  char bytes[kKeyBytes];
  const char* data() const { return bytes; }
  bool operator<(const Key& o) const { return std::memcmp(bytes, o.bytes, kKeyBytes) < 0; }
};

Key makeKey(uint64_t n) {
  Key key;
  key.bytes[0] = 'k';
  n %= 1000000000000000ULL;
  for (int i = kKeyBytes - 1; i > 0; --i, n /= 10) key.bytes[i] = static_cast<char>('0' + n % 10);
  return key;
}

// The store interface the workloads drive.
class Store {
 public:
  virtual ~Store() = default;
  virtual bool put(const Key& key, int32_t value) = 0;
  virtual bool get(const Key& key, int32_t* value) = 0;
  // Positions at the first key >= `key` and reads up to `count` entries; returns how many.
  virtual int seekAndRead(const Key& key, int count) = 0;
  virtual int64_t readAll() = 0;
  virtual bool del(const Key& key) = 0;
  virtual void beginBulk() {}
  virtual void endBulk() {}
  virtual void close() = 0;
  // Writes what the store holds in its own cache to its files, outside the timed part, so that
  // bytes on disk can be counted.
  virtual void flushForSize() {}
};

class OurStore : public Store {
 public:
  OurStore(const std::string& path, bool batch) : tree_(path, 64, kKeyBytes, false, 0, 0, 0), batch_(batch) {
    if (!tree_.isOk() || (batch && !tree_.setCrashSafe(true))) std::abort();
  }
  bool put(const Key& k, int32_t v) override { return tree_.insertKey(v, k.data(), kKeyBytes); }
  bool get(const Key& k, int32_t* v) override { return tree_.find(*v, k.data(), kKeyBytes); }
  int seekAndRead(const Key& k, int count) override {
    int32_t v;
    int n = 0;
    for (bool ok = tree_.findGreaterThanOrEqual(v, k.data(), kKeyBytes); ok && n < count; ok = tree_.next(v)) ++n;
    return n;
  }
  int64_t readAll() override {
    int32_t v;
    int64_t n = 0;
    for (bool ok = tree_.first(v); ok; ok = tree_.next(v)) ++n;
    return n;
  }
  bool del(const Key& k) override { return tree_.deleteKey(k.data(), kKeyBytes); }
  void beginBulk() override {
    if (batch_ && !tree_.beginBatch()) std::abort();
  }
  void endBulk() override {
    if (batch_ && !tree_.commitBatch()) std::abort();
  }
  void close() override {}

 private:
  BTree tree_;
  bool batch_;
};

class SqliteStore : public Store {
 public:
  SqliteStore(const std::string& path, bool oneTransaction) : bulk_(oneTransaction) {
    if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) std::abort();
    exec("PRAGMA synchronous=OFF");
    exec("PRAGMA journal_mode=OFF");
    exec("CREATE TABLE IF NOT EXISTS kv(k BLOB PRIMARY KEY, v INTEGER) WITHOUT ROWID");
    prepare(&put_, "INSERT INTO kv(k, v) VALUES(?, ?)");
    prepare(&get_, "SELECT v FROM kv WHERE k = ?");
    prepare(&seek_, "SELECT k, v FROM kv WHERE k >= ? ORDER BY k LIMIT ?");
    prepare(&all_, "SELECT k, v FROM kv ORDER BY k");
    prepare(&del_, "DELETE FROM kv WHERE k = ?");
  }
  ~SqliteStore() override { close(); }
  bool put(const Key& k, int32_t v) override {
    sqlite3_bind_blob(put_, 1, k.data(), kKeyBytes, SQLITE_STATIC);
    sqlite3_bind_int(put_, 2, v);
    bool ok = sqlite3_step(put_) == SQLITE_DONE;
    sqlite3_reset(put_);
    return ok;
  }
  bool get(const Key& k, int32_t* v) override {
    sqlite3_bind_blob(get_, 1, k.data(), kKeyBytes, SQLITE_STATIC);
    bool ok = sqlite3_step(get_) == SQLITE_ROW;
    if (ok) *v = sqlite3_column_int(get_, 0);
    sqlite3_reset(get_);
    return ok;
  }
  int seekAndRead(const Key& k, int count) override {
    sqlite3_bind_blob(seek_, 1, k.data(), kKeyBytes, SQLITE_STATIC);
    sqlite3_bind_int(seek_, 2, count);
    int n = 0;
    while (sqlite3_step(seek_) == SQLITE_ROW) ++n;
    sqlite3_reset(seek_);
    return n;
  }
  int64_t readAll() override {
    int64_t n = 0;
    while (sqlite3_step(all_) == SQLITE_ROW) ++n;
    sqlite3_reset(all_);
    return n;
  }
  bool del(const Key& k) override {
    sqlite3_bind_blob(del_, 1, k.data(), kKeyBytes, SQLITE_STATIC);
    bool ok = sqlite3_step(del_) == SQLITE_DONE && sqlite3_changes(db_) == 1;
    sqlite3_reset(del_);
    return ok;
  }
  void beginBulk() override { if (bulk_) exec("BEGIN"); }
  void endBulk() override { if (bulk_) exec("COMMIT"); }
  void close() override {
    if (db_ == nullptr) return;
    for (sqlite3_stmt* s : {put_, get_, seek_, all_, del_}) sqlite3_finalize(s);
    sqlite3_close(db_);
    db_ = nullptr;
  }

 private:
  void exec(const char* sql) { sqlite3_exec(db_, sql, nullptr, nullptr, nullptr); }
  void prepare(sqlite3_stmt** s, const char* sql) {
    if (sqlite3_prepare_v2(db_, sql, -1, s, nullptr) != SQLITE_OK) std::abort();
  }
  sqlite3* db_ = nullptr;
  sqlite3_stmt *put_ = nullptr, *get_ = nullptr, *seek_ = nullptr, *all_ = nullptr, *del_ = nullptr;
  bool bulk_;
};

class BdbStore : public Store {
 public:
  explicit BdbStore(const std::string& path) {
    if (db_create(&db_, nullptr, 0) != 0) std::abort();
    db_->set_cachesize(db_, 0, 64 << 20, 1);
    if (db_->open(db_, nullptr, path.c_str(), nullptr, DB_BTREE, DB_CREATE, 0644) != 0) std::abort();
  }
  ~BdbStore() override { close(); }
  bool put(const Key& k, int32_t v) override {
    DBT key = dbt(k.data(), kKeyBytes), val = dbt(&v, 4);
    return db_->put(db_, nullptr, &key, &val, DB_NOOVERWRITE) == 0;
  }
  bool get(const Key& k, int32_t* v) override {
    DBT key = dbt(k.data(), kKeyBytes), val = dbt(v, 4);
    val.ulen = 4;
    val.flags = DB_DBT_USERMEM;
    return db_->get(db_, nullptr, &key, &val, 0) == 0;
  }
  int seekAndRead(const Key& k, int count) override {
    DBC* c;
    db_->cursor(db_, nullptr, &c, 0);
    Key probe = k;
    DBT key = dbt(probe.bytes, kKeyBytes), val = dbt(nullptr, 0);
    int n = 0;
    for (int r = c->get(c, &key, &val, DB_SET_RANGE); r == 0 && n < count; r = c->get(c, &key, &val, DB_NEXT)) ++n;
    c->close(c);
    return n;
  }
  int64_t readAll() override {
    DBC* c;
    db_->cursor(db_, nullptr, &c, 0);
    DBT key = dbt(nullptr, 0), val = dbt(nullptr, 0);
    int64_t n = 0;
    while (c->get(c, &key, &val, DB_NEXT) == 0) ++n;
    c->close(c);
    return n;
  }
  bool del(const Key& k) override {
    DBT key = dbt(k.data(), kKeyBytes);
    return db_->del(db_, nullptr, &key, 0) == 0;
  }
  void flushForSize() override { db_->sync(db_, 0); }
  void close() override {
    if (db_ != nullptr) db_->close(db_, 0);
    db_ = nullptr;
  }

 private:
  static DBT dbt(const void* data, uint32_t size) {
    DBT d;
    std::memset(&d, 0, sizeof d);
    d.data = const_cast<void*>(data);
    d.size = size;
    return d;
  }
  DB* db_ = nullptr;
};

class LmdbStore : public Store {
 public:
  explicit LmdbStore(const std::string& path) {
    fs::create_directories(path);
    mdb_env_create(&env_);
    mdb_env_set_mapsize(env_, size_t(4) << 30);
    if (mdb_env_open(env_, path.c_str(), MDB_NOSYNC | MDB_NOMETASYNC, 0644) != 0) std::abort();
    MDB_txn* txn;
    mdb_txn_begin(env_, nullptr, 0, &txn);
    mdb_dbi_open(txn, nullptr, 0, &dbi_);
    mdb_txn_commit(txn);
  }
  ~LmdbStore() override { close(); }
  bool put(const Key& k, int32_t v) override {
    MDB_txn* txn;
    mdb_txn_begin(env_, nullptr, 0, &txn);
    MDB_val key{kKeyBytes, const_cast<char*>(k.data())}, val{4, &v};
    int r = mdb_put(txn, dbi_, &key, &val, MDB_NOOVERWRITE);
    mdb_txn_commit(txn);
    return r == 0;
  }
  bool get(const Key& k, int32_t* v) override {
    MDB_txn* txn;
    mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn);
    MDB_val key{kKeyBytes, const_cast<char*>(k.data())}, val;
    int r = mdb_get(txn, dbi_, &key, &val);
    if (r == 0) std::memcpy(v, val.mv_data, 4);
    mdb_txn_abort(txn);
    return r == 0;
  }
  int seekAndRead(const Key& k, int count) override {
    MDB_txn* txn;
    mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn);
    MDB_cursor* c;
    mdb_cursor_open(txn, dbi_, &c);
    MDB_val key{kKeyBytes, const_cast<char*>(k.data())}, val;
    int n = 0;
    for (int r = mdb_cursor_get(c, &key, &val, MDB_SET_RANGE); r == 0 && n < count;
         r = mdb_cursor_get(c, &key, &val, MDB_NEXT)) ++n;
    mdb_cursor_close(c);
    mdb_txn_abort(txn);
    return n;
  }
  int64_t readAll() override {
    MDB_txn* txn;
    mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn);
    MDB_cursor* c;
    mdb_cursor_open(txn, dbi_, &c);
    MDB_val key, val;
    int64_t n = 0;
    while (mdb_cursor_get(c, &key, &val, MDB_NEXT) == 0) ++n;
    mdb_cursor_close(c);
    mdb_txn_abort(txn);
    return n;
  }
  bool del(const Key& k) override {
    MDB_txn* txn;
    mdb_txn_begin(env_, nullptr, 0, &txn);
    MDB_val key{kKeyBytes, const_cast<char*>(k.data())};
    int r = mdb_del(txn, dbi_, &key, nullptr);
    mdb_txn_commit(txn);
    return r == 0;
  }
  void flushForSize() override { mdb_env_sync(env_, 1); }
  void close() override {
    if (env_ != nullptr) mdb_env_close(env_);
    env_ = nullptr;
  }

 private:
  MDB_env* env_ = nullptr;
  MDB_dbi dbi_ = 0;
};

struct IoCounts {
  int64_t syscr = 0, syscw = 0;
};

IoCounts readProcIo() {
  IoCounts c;
  std::ifstream in("/proc/self/io");
  std::string name;
  int64_t value;
  while (in >> name >> value) {
    if (name == "syscr:") c.syscr = value;
    if (name == "syscw:") c.syscw = value;
  }
  return c;
}

int64_t diskBytes(const std::string& path) {
  std::error_code ec;
  if (fs::is_directory(path, ec)) {
    int64_t total = 0;
    for (const auto& e : fs::directory_iterator(path, ec)) total += static_cast<int64_t>(e.file_size(ec));
    return total;
  }
  auto n = fs::file_size(path, ec);
  return ec ? 0 : static_cast<int64_t>(n);
}

std::unique_ptr<Store> openStore(const std::string& name, const std::string& path) {
  setBTreePageCacheSize(name == "ours-nocache" ? 0 : kBTreePageCacheDefaultSize);
  if (name == "ours" || name == "ours-nocache" || name == "ours-batch") {
    return std::make_unique<OurStore>(path, name == "ours-batch");
  }
  if (name == "sqlite-op") return std::make_unique<SqliteStore>(path, false);
  if (name == "sqlite-all") return std::make_unique<SqliteStore>(path, true);
  if (name == "bdb") return std::make_unique<BdbStore>(path);
  return std::make_unique<LmdbStore>(path);
}

// Runs every workload on one store and writes "workload ops seconds syscalls bytes" lines to `out`.
void runStore(const std::string& name, int64_t n, const std::string& dir, FILE* out) {
  using Clock = std::chrono::steady_clock;
  std::string path = dir + "/" + name + "-" + std::to_string(n);
  fs::remove_all(path);
  std::vector<uint64_t> order(static_cast<size_t>(n));
  for (int64_t i = 0; i < n; ++i) order[static_cast<size_t>(i)] = static_cast<uint64_t>(i) * 2;  // even keys present
  std::mt19937_64 rng(42);
  // Bytes per entry are taken from `sizePath` (the file the workload writes to).
  Store* sizing = nullptr;  // the store whose files are counted
  auto measureAt = [&](const std::string& sizePath, const char* workload, int64_t ops,
                       const std::function<void()>& body) {
    IoCounts before = readProcIo();
    auto t = Clock::now();
    body();
    double seconds = std::chrono::duration<double>(Clock::now() - t).count();
    IoCounts after = readProcIo();
    if (sizing != nullptr) sizing->flushForSize();
    std::fprintf(out, "%s %lld %.6f %lld %lld\n", workload, static_cast<long long>(ops), seconds,
                 static_cast<long long>((after.syscr - before.syscr) + (after.syscw - before.syscw)),
                 static_cast<long long>(diskBytes(sizePath)));
  };
  auto measure = [&](const char* workload, int64_t ops, const std::function<void()>& body) {
    measureAt(path, workload, ops, body);
  };
  {
    // Sequential fill into its own file.
    std::string seqPath = path + "-seq";
    fs::remove_all(seqPath);
    auto s = openStore(name, seqPath);
    sizing = s.get();
    measureAt(seqPath, "fillseq", n, [&] {
      s->beginBulk();
      for (int64_t i = 0; i < n; ++i) s->put(makeKey(order[static_cast<size_t>(i)]), static_cast<int32_t>(i));
      s->endBulk();
    });
    s->close();
    fs::remove_all(seqPath);
  }
  std::shuffle(order.begin(), order.end(), rng);
  auto s = openStore(name, path);
  sizing = s.get();
  measure("fillrandom", n, [&] {
    s->beginBulk();
    for (int64_t i = 0; i < n; ++i) s->put(makeKey(order[static_cast<size_t>(i)]), static_cast<int32_t>(i));
    s->endBulk();
  });
  int64_t probes = std::min<int64_t>(n, 200000);
  measure("readrandom", probes, [&] {
    int32_t v;
    for (int64_t i = 0; i < probes; ++i) {
      if (!s->get(makeKey(order[static_cast<size_t>(rng() % static_cast<uint64_t>(n))]), &v)) std::abort();
    }
  });
  measure("readmissing", probes, [&] {
    int32_t v;
    for (int64_t i = 0; i < probes; ++i) s->get(makeKey(order[static_cast<size_t>(rng() % static_cast<uint64_t>(n))] + 1), &v);
  });
  int64_t seeks = std::min<int64_t>(n, 50000);
  measure("seekrandom", seeks, [&] {
    for (int64_t i = 0; i < seeks; ++i) s->seekAndRead(makeKey(rng() % static_cast<uint64_t>(2 * n)), 10);
  });
  measure("readseq", n, [&] {
    if (s->readAll() != n) std::abort();
  });
  int64_t deletes = std::min<int64_t>(n / 2, 100000);
  measure("deleterandom", deletes, [&] {
    s->beginBulk();
    for (int64_t i = 0; i < deletes; ++i) s->del(makeKey(order[static_cast<size_t>(i)]));
    s->endBulk();
  });
  s->close();
  fs::remove_all(path);
}

// Builds a store at `path` from `entries` (unsorted; sorted here, as part of the work): ours with
// the bulk builder, SQLite by inserts into a plain table in one transaction and then the index,
// Berkeley DB by sorted inserts, LMDB by sorted appends in one transaction.
void bulkLoad(const std::string& name, const std::string& path,
              std::vector<std::pair<Key, int32_t>>& entries) {
  std::sort(entries.begin(), entries.end());
  if (name == "ours" || name == "ours-nocache" || name == "ours-batch") {
    setBTreePageCacheSize(name == "ours-nocache" ? 0 : kBTreePageCacheDefaultSize);
    size_t at = 0;
    auto next = [&](BTreeBulkEntry& e) {
      if (at >= entries.size()) return false;
      e.key = entries[at].first.data();
      e.length = kKeyBytes;
      e.value = entries[at++].second;
      return true;
    };
    BTreeBulkShape shape;
    if (!bulkBuildBTree(path, shape, static_cast<int64_t>(entries.size()), next, nullptr)) std::abort();
  } else if (name == "sqlite-op" || name == "sqlite-all") {
    sqlite3* db;
    if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) std::abort();
    auto exec = [db](const char* sql) { sqlite3_exec(db, sql, nullptr, nullptr, nullptr); };
    exec("PRAGMA synchronous=OFF");
    exec("PRAGMA journal_mode=OFF");
    exec("CREATE TABLE kv(k BLOB, v INTEGER)");
    sqlite3_stmt* put;
    sqlite3_prepare_v2(db, "INSERT INTO kv(k, v) VALUES(?, ?)", -1, &put, nullptr);
    exec("BEGIN");
    for (const auto& e : entries) {
      sqlite3_bind_blob(put, 1, e.first.data(), kKeyBytes, SQLITE_STATIC);
      sqlite3_bind_int(put, 2, e.second);
      if (sqlite3_step(put) != SQLITE_DONE) std::abort();
      sqlite3_reset(put);
    }
    exec("COMMIT");
    sqlite3_finalize(put);
    exec("CREATE UNIQUE INDEX kv_k ON kv(k)");
    sqlite3_close(db);
  } else if (name == "bdb") {
    BdbStore store(path);
    for (const auto& e : entries) store.put(e.first, e.second);
    store.close();
  } else {
    fs::create_directories(path);
    MDB_env* env;
    mdb_env_create(&env);
    mdb_env_set_mapsize(env, size_t(4) << 30);
    if (mdb_env_open(env, path.c_str(), MDB_NOSYNC | MDB_NOMETASYNC, 0644) != 0) std::abort();
    MDB_txn* txn;
    MDB_dbi dbi;
    mdb_txn_begin(env, nullptr, 0, &txn);
    mdb_dbi_open(txn, nullptr, 0, &dbi);
    for (auto& e : entries) {
      MDB_val key{kKeyBytes, e.first.bytes}, val{4, &e.second};
      if (mdb_put(txn, dbi, &key, &val, MDB_APPEND) != 0) std::abort();
    }
    mdb_txn_commit(txn);
    mdb_env_close(env);
  }
}

// The bulkload workload alone, in its own process: "bulkload ops seconds syscalls bytes".
void runBulk(const std::string& name, int64_t n, const std::string& dir, FILE* out) {
  const std::string path = dir + "/" + name + "-bulk-" + std::to_string(n);
  fs::remove_all(path);
  std::vector<std::pair<Key, int32_t>> entries;
  entries.reserve(static_cast<size_t>(n));
  for (int64_t i = 0; i < n; ++i) entries.emplace_back(makeKey(static_cast<uint64_t>(i) * 2), static_cast<int32_t>(i));
  std::mt19937_64 rng(43);
  std::shuffle(entries.begin(), entries.end(), rng);
  IoCounts before = readProcIo();
  auto t = std::chrono::steady_clock::now();
  bulkLoad(name, path, entries);
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
  IoCounts after = readProcIo();
  std::fprintf(out, "bulkload %lld %.6f %lld %lld\n", static_cast<long long>(n), seconds,
               static_cast<long long>((after.syscr - before.syscr) + (after.syscw - before.syscw)),
               static_cast<long long>(diskBytes(path)));
  fs::remove_all(path);
}

struct Result {
  double opsPerSecond = 0, syscallsPerOp = 0, bytesPerEntry = 0;
};

}  // namespace

int main(int argc, char** argv) {
  std::vector<int64_t> sizes{100000, 1000000};
  std::vector<std::string> stores{"ours", "ours-nocache", "ours-batch", "sqlite-op", "sqlite-all", "bdb", "lmdb"};
  std::string dir = fs::temp_directory_path().string();
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string opt = argv[i], val = argv[i + 1];
    std::vector<std::string> parts;
    std::stringstream ss(val);
    for (std::string p; std::getline(ss, p, ',');) parts.push_back(p);
    if (opt == "--sizes") {
      sizes.clear();
      for (const auto& p : parts) sizes.push_back(std::stoll(p));
    } else if (opt == "--stores") {
      stores = parts;
    } else if (opt == "--dir") {
      dir = val;
    }
  }
  std::error_code made;
  fs::create_directories(dir, made);
  const char* workloads[] = {"fillseq", "fillrandom", "readrandom", "readmissing", "seekrandom", "readseq", "deleterandom", "bulkload"};
  for (int64_t n : sizes) {
    std::map<std::string, std::map<std::string, Result>> results;
    std::map<std::string, long> peakKb, bulkPeakKb;
    for (int pass = 0; pass < 2 * static_cast<int>(stores.size()); ++pass) {
      const std::string& store = stores[static_cast<size_t>(pass / 2)];
      const bool bulk = pass % 2 == 1;
      int pipefd[2];
      if (pipe(pipefd) != 0) return 1;
      pid_t pid = fork();
      if (pid == 0) {
        ::close(pipefd[0]);
        FILE* out = fdopen(pipefd[1], "w");
        if (bulk) {
          runBulk(store, n, dir, out);
        } else {
          runStore(store, n, dir, out);
        }
        std::fclose(out);
        _exit(0);
      }
      ::close(pipefd[1]);
      FILE* in = fdopen(pipefd[0], "r");
      char workload[64];
      long long ops, syscalls, bytes;
      double seconds;
      while (std::fscanf(in, "%63s %lld %lf %lld %lld", workload, &ops, &seconds, &syscalls, &bytes) == 5) {
        Result& r = results[workload][store];
        r.opsPerSecond = seconds > 0 ? static_cast<double>(ops) / seconds : 0;
        r.syscallsPerOp = ops > 0 ? static_cast<double>(syscalls) / static_cast<double>(ops) : 0;
        r.bytesPerEntry = static_cast<double>(bytes) / static_cast<double>(n);
      }
      std::fclose(in);
      int status;
      struct rusage usage;
      wait4(pid, &status, 0, &usage);
      (bulk ? bulkPeakKb : peakKb)[store] = usage.ru_maxrss;
    }
    std::printf("\n%lld entries, 16-byte keys, 32-bit values\n", static_cast<long long>(n));
    std::printf("%-13s %-11s %12s %9s %11s %9s\n", "workload", "store", "ops/s", "ours/x", "syscalls/op", "bytes/ent");
    for (const char* w : workloads) {
      double ours = results[w]["ours"].opsPerSecond;
      for (const auto& store : stores) {
        const Result& r = results[w][store];
        std::printf("%-13s %-11s %12.0f %9.2f %11.2f %9.1f\n", w, store.c_str(), r.opsPerSecond,
                    r.opsPerSecond > 0 ? ours / r.opsPerSecond : 0, r.syscallsPerOp, r.bytesPerEntry);
      }
    }
    std::printf("peak resident size (KiB):");
    for (const auto& store : stores) std::printf(" %s %ld", store.c_str(), peakKb[store]);
    std::printf("\npeak resident size, bulkload (KiB):");
    for (const auto& store : stores) std::printf(" %s %ld", store.c_str(), bulkPeakKb[store]);
    std::printf("\n");
  }
  return 0;
}
