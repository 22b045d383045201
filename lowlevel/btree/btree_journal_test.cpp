// Crash-safe batches: the same file bytes as the default mode, a rollback back to the exact bytes
// (also after the overlay spilled), a batch cut off after the tree was touched and rolled back at
// the next open, damaged journals, and the writers' lock (kept while the tree is parked).
#include <string>

#include <gtest/gtest.h>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_journal.h"
#include "lowlevel/btree/btreepagefile.h"
#include "lowlevel/files/file.h"
#include "tests/testsupport/testing.h"

namespace {

using lltest::readFile;
using lltest::writeFile;
namespace io = lowlevel::platform;

std::string key(int i) { return "k" + std::to_string(100000 + i).substr(1); }

// Inserts from..to-1, deletes every third of them, replaces the value of every fifth.
void change(BTree& t, int from, int to) {
  for (int i = from; i < to; ++i) ASSERT_TRUE(t.insertKey(i, key(i).c_str(), 0)) << i;
  for (int i = from; i < to; i += 3) ASSERT_TRUE(t.deleteKey(key(i).c_str(), 0)) << i;
  for (int i = from + 1; i < to; i += 3) ASSERT_TRUE(t.replaceValue(-i, key(i).c_str(), 0)) << i;
}

struct Shape { int order, width, keys; size_t spill; };

// Writes the keys 0..keys-1 through change() in two halves, the second in one batch when `safe`.
void fill(const std::string& path, const Shape& s, bool safe) {
  BTree t(path, s.order, s.width, false, 0, 0, 0);
  ASSERT_TRUE(!safe || t.setCrashSafe(true));
  change(t, 0, s.keys / 2);  // in crash-safe mode, a batch per change
  ASSERT_TRUE(!safe || t.beginBatch());
  change(t, s.keys / 2, s.keys);
  ASSERT_TRUE(!safe || t.commitBatch());
}

TEST(BTreeJournal, CommitsTheDefaultBytesAndRollsBackToTheExactBytes) {
  // In the second shape the batches outgrow the in-memory overlay and spill through the journal.
  for (Shape s : {Shape{4, 8, 60, 8u << 20}, Shape{5, 300, 60, 8192}}) {
    BTreeJournal::spillBytes = s.spill;
    lltest::TempDir dir;
    lltest::RecordingSupport host;
    const std::string plain = dir.file("plain.btr"), safe = dir.file("safe.btr");
    fill(plain, s, false);
    fill(safe, s, true);
    EXPECT_TRUE(readFile(plain) == readFile(safe)) << s.width;
    const std::string before = readFile(safe);
    {
      BTree t(safe, false, 0);
      ASSERT_TRUE(t.setCrashSafe(true) && t.beginBatch());
      lltest::FaultInjector reads({io::IoCall::Read});
      change(t, s.keys, 2 * s.keys);
      // While the batch fits in memory, each record (and the header) is read at most once.
      const size_t records = (before.size() - 46) / btreeRecordSize(s.order, s.width);
      EXPECT_TRUE(s.spill < before.size() || reads.count <= static_cast<int>(records + 1)) << reads.count;
      ASSERT_TRUE(t.deleteKey(key(1).c_str(), 0));
      int32_t v = 0;
      EXPECT_TRUE(t.find(v, key(s.keys + 1).c_str(), 0));
      ASSERT_TRUE(t.rollbackBatch());
      EXPECT_EQ(std::to_string(t.find(v, key(s.keys + 1).c_str(), 0)) + std::to_string(t.find(v, key(1).c_str(), 0)) +
                    " " + std::to_string(t.getKeyCount()) + lltest::reportsText(host.reports),
                "01 40");
    }
    EXPECT_TRUE(before == readFile(safe) && !lltest::fileExists(safe + "-journal")) << s.width;
  }
  BTreeJournal::spillBytes = 8u << 20;
}

TEST(BTreeJournal, ACutOffBatchIsRolledBackAtTheNextOpenWhateverTheJournalHolds) {
  lltest::TempDir dir;
  const std::string path = dir.file("t.btr"), journal = path + "-journal";
  fill(path, Shape{4, 8, 40, 0}, false);
  const std::string before = readFile(path);
  std::string dirty, hot;
  lltest::RecordingSupport host;
  {
    BTree t(path, false, 0);
    ASSERT_TRUE(t.setCrashSafe(true) && t.beginBatch());
    change(t, 100, 140);
    // The journal's one write and the header's write reach the disk; then the machine stops.
    lltest::FaultInjector stop({io::IoCall::Write, io::IoCall::Sync, io::IoCall::Truncate});
    stop.failFrom = 5;  // the journal's write and syncs, the first run of blocks, no more
    EXPECT_FALSE(t.commitBatch() || t.isOk());
    EXPECT_EQ("Unable to commit the batch; the next open of the BTree rolls it back (" + path +
                  ").|BTree::commitBatch|2|btree\n",
              lltest::reportsText(host.reports));
    dirty = readFile(path);
    hot = readFile(journal);
  }
  ASSERT_NE(before, dirty);
  host.reports.clear();
  EXPECT_FALSE(BTree(path, true, 0).isOk());
  EXPECT_EQ("An interrupted batch must be rolled back, and the tree is opened read-only (" + path +
                ").|BTreePageFile::BTreePageFile|2|btree\n",
            lltest::reportsText(host.reports));
  EXPECT_TRUE(dirty == readFile(path));
  // Intact, or with the last record cut short or changed (never followed by a write to the
  // tree), the journal gives back the bytes before the batch. A journal whose header is damaged
  // was never followed by a write to the tree: it is deleted, and the tree left alone.
  std::string cut = hot.substr(0, hot.size() - 7), flipped = hot, badHeader = hot;
  flipped[hot.size() - 9] ^= 1;
  badHeader[20] ^= 1;
  struct Case { const std::string &tree, &journal; };
  for (Case c : {Case{dirty, hot}, Case{dirty, cut}, Case{dirty, flipped}, Case{before, badHeader}}) {
    writeFile(path, c.tree);
    writeFile(journal, c.journal);
    EXPECT_TRUE(BTree(path, false, 0).isOk()) << c.journal.size();
    EXPECT_TRUE(!lltest::fileExists(journal) && before == readFile(path)) << c.journal.size();
  }
}

TEST(BTreeJournal, ASecondWriterFailsCleanlyOrWaitsAndSeesTheFirstWritersBatch) {
  lltest::TempDir dir;
  lltest::RecordingSupport host;
  const std::string path = dir.file("t.btr");
  { BTree t(path, 4, 8, false, 0, 0, 0); }
  BTree a(path, false, 0), b(path, false, 0);
  ASSERT_TRUE(a.setCrashSafe(true) && b.setCrashSafe(true) && a.beginBatch());
  change(a, 0, 15);
  ZFile::CloseAll(ZFile::eAllFiles);  // the parked tree keeps its lock, and comes back by itself
  change(a, 15, 30);
  EXPECT_FALSE(b.beginBatch(false));
  EXPECT_EQ("Another writer holds the lock on the BTree (" + path + ").|BTree::beginBatch|2|btree\n",
            lltest::reportsText(host.reports));
  ASSERT_TRUE(a.commitBatch() && b.beginBatch(false));
  int32_t v = 0, w = 0;
  EXPECT_TRUE(b.find(v, key(2).c_str(), 0) && b.find(w, key(4).c_str(), 0));
  EXPECT_EQ(std::to_string(w) + " " + std::to_string(b.getKeyCount()), "-4 20");
  EXPECT_TRUE(b.commitBatch());
}

}  // namespace
