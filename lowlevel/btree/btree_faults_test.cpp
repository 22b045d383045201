// Failing I/O in every operation that writes, on trees of one to three levels below the root: the
// k-th I/O call fails (or the k-th write is torn and nothing after it reaches the disk), for every
// k until the operation meets no fault. A run that meets a fault returns false, or true with the
// exact result; no crash or leak; the file left behind opens (or is refused) and every walk of it
// ends by itself.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <iterator>
#include <memory>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btreetools.h"
#include "tests/testsupport/testing.h"

namespace {

using Model = std::map<std::string, int32_t>;

constexpr int kWidth = 20;  // wide enough for compressBTree

std::string keyOf(int i) {
  char text[16];
  std::snprintf(text, sizeof text, "key%04d", i);
  return std::string(text, 7) + std::string(kWidth - 7, '\0');
}

// Every entry by the cursor, forward; `ended` tells whether the walk ended by itself before `cap`.
Model walk(BTree& tree, size_t cap, bool* ended) {
  Model out;
  int32_t value = 0;
  size_t steps = 0;
  bool more = tree.first(value);
  for (; more && steps < cap; ++steps, more = tree.next(value)) {
    std::string key(kWidth, '\0');
    int length = kWidth;
    if (tree.getCurrentKey(&key[0], length)) out[key.substr(0, length)] = value;
  }
  *ended = !more;
  return out;
}

size_t fileSize(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<size_t>(st.st_size) : 0;
}

// A torn write: the k-th write puts only half its bytes down, and every call after it fails, as
// when the machine stops in the middle of a write.
class TornWrite : public lltest::FaultInjector {
 public:
  explicit TornWrite(int k) : lltest::FaultInjector({lowlevel::platform::IoCall::Write}), k_(k) {}
  bool shouldFail(lowlevel::platform::IoCall call, int handle) override {
    if (torn_ && call != lowlevel::platform::IoCall::Close) {  // closing still frees the handle
      ++failures;
      return true;
    }
    return lltest::FaultInjector::shouldFail(call, handle);
  }
  unsigned limitBytes(lowlevel::platform::IoCall call, int, unsigned n) override {
    if (call != lowlevel::platform::IoCall::Write || count != k_ || torn_) return n;
    torn_ = true;
    ++failures;
    return n / 2;
  }

 private:
  int k_;
  bool torn_ = false;
};

struct Operation {
  const char* name;
  // Changes the tree at `path` (or copies it to `target`); updates `model` to what a run without
  // faults gives, and answers as the library did.
  std::function<bool(const std::string& path, const std::string& target, Model& model)> run;
  bool copies;  // the result is read from `target`
};

// The injector of the current run, and how many faults it had made when the change returned
// (before the tree's closing header write, which cannot report a failure).
lltest::FaultInjector* gFaults = nullptr;
int gFaultsBeforeClose = 0;

bool changeTree(const std::string& path, const std::function<bool(BTree&)>& change) {
  BTree tree(path, false, 0);
  bool result = tree.isOk() && change(tree);
  gFaultsBeforeClose = gFaults->failures;
  return result;
}

const std::vector<Operation>& operations() {
  static const std::vector<Operation> ops = {
      {"insertKey",
       [](const std::string& path, const std::string&, Model& model) {
         return changeTree(path, [&](BTree& tree) {
           for (int i : {1, 501, 502, 503}) {  // 501.. split the rightmost pages up to the root
             model[keyOf(i)] = i;
             if (!tree.insertKey(i, keyOf(i).data(), kWidth)) return false;
           }
           return true;
         });
       },
       false},
      {"deleteKey",
       [](const std::string& path, const std::string&, Model& model) {
         return changeTree(path, [&](BTree& tree) {
           // The three smallest: the leftmost leaves fall below half and merge upwards (the
           // tree of one level ends empty).
           std::vector<std::string> gone;
           for (auto it = model.begin(); it != model.end() && gone.size() < 3; ++it)
             gone.push_back(it->first);
           for (const std::string& key : gone) {
             model.erase(key);
             if (!tree.deleteKey(key.data(), kWidth)) return false;
           }
           return true;
         });
       },
       false},
      {"replaceValue",
       [](const std::string& path, const std::string&, Model& model) {
         return changeTree(path, [&](BTree& tree) {
           auto middle = std::next(model.begin(), static_cast<long>(model.size() / 2));
           middle->second = -7;
           return tree.replaceValue(-7, middle->first.data(), kWidth);
         });
       },
       false},
      {"create",
       [](const std::string&, const std::string& target, Model& model) {
         BTree tree(target, 3, kWidth, false, 0, 0, 0);
         bool ok = tree.isOk();
         model.clear();
         for (int i : {5, 6, 7}) {
           model[keyOf(i)] = i;
           ok = ok && tree.insertKey(i, keyOf(i).data(), kWidth);
         }
         gFaultsBeforeClose = gFaults->failures;
         return ok;
       },
       true},
      {"compressBTree",
       [](const std::string& path, const std::string& target, Model&) {
         return compressBTree(path, target);
       },
       true},
      {"orderBTree",
       [](const std::string& path, const std::string& target, Model&) {
         return orderBTree(path, target);
       },
       true},
      {"repackBTree",
       [](const std::string& path, const std::string& target, Model&) {
         return repackBTree(path, target, 4);
       },
       true},
  };
  return ops;
}

class Faults : public ::testing::TestWithParam<int> {
 protected:
  // A tree of order 3 with `levels` levels below the root; keys 0, 10, 20, ...
  void build(int levels) {
    const int keys[] = {0, 3, 9, 27};
    BTree tree(source_, 3, kWidth, false, 0, 0, 0);
    ASSERT_TRUE(tree.isOk());
    for (int i = 0; i < keys[levels]; ++i) {
      ASSERT_TRUE(tree.insertKey(i * 10, keyOf(i * 10).data(), kWidth));
      model_[keyOf(i * 10)] = i * 10;
    }
    ASSERT_EQ(tree.depth(), levels);
  }

  // What is left after a run: opens or is refused, and every walk of it ends by itself. With
  // `exact`, it must hold exactly `expected`.
  void checkLeftOver(const std::string& path, bool exact, const Model& expected,
                     const std::string& what) {
    const size_t cap = fileSize(path) + 64;  // no file holds more entries than bytes
    BTree tree(path, true, 0);
    if (!tree.isOk()) {
      EXPECT_FALSE(exact) << what;
      return;
    }
    bool ended = false;
    Model seen = walk(tree, cap, &ended);
    EXPECT_TRUE(ended) << what;
    int32_t value = 0;
    size_t steps = 0;
    for (bool more = tree.last(value); more && steps < cap; more = tree.prev(value)) ++steps;
    EXPECT_LT(steps, cap) << what;
    tree.test(false, nullptr, nullptr, nullptr);
    if (exact) {
      EXPECT_EQ(seen, expected) << what;
      EXPECT_TRUE(tree.test(true, nullptr, nullptr, nullptr)) << what;  // repacked: relaxed
    }
  }

  lltest::RecordingSupport support_;  // keeps the reports of the damaged runs off the console
  lltest::TempDir dir_;
  std::string source_ = dir_.file("s.bt");
  std::string work_ = dir_.file("w.bt");
  std::string target_ = dir_.file("t.bt");
  Model model_;
};

// For every operation: fail the k-th call, then tear the k-th write, for every k in turn.
TEST_P(Faults, EveryCallOfEveryWritingOperation) {
  build(GetParam());
  const std::string pristine = lltest::readFile(source_);
  for (const Operation& op : operations()) {
    for (bool torn : {false, true}) {
      int k = 1;
      for (bool injected = true; injected; ++k) {
        ASSERT_LT(k, 5000) << op.name;
        lltest::writeFile(work_, pristine);
        std::remove(target_.c_str());
        Model expected = model_;
        bool result;
        {
          std::unique_ptr<lltest::FaultInjector> faults;
          if (torn) {
            faults.reset(new TornWrite(k));
          } else {
            faults.reset(new lltest::FaultInjector());
            faults->failAt = {k};
          }
          gFaults = faults.get();
          gFaultsBeforeClose = -1;
          result = op.run(work_, target_, expected);  // the tree is closed inside the fault scope
          injected = faults->failures > 0;
          if (gFaultsBeforeClose < 0) gFaultsBeforeClose = faults->failures;
          gFaults = nullptr;
        }
        const std::string what = std::string(op.name) + (torn ? " torn write " : " failed call ") +
                                 std::to_string(k);
        if (!injected) {
          EXPECT_TRUE(result) << what;
        }
        if (op.copies) {
          EXPECT_EQ(lltest::readFile(work_), pristine) << what;
          if (lltest::fileExists(target_)) {
            checkLeftOver(target_, result && (!injected || (!torn && gFaultsBeforeClose > 0)),
                          expected, what);
          } else {
            EXPECT_FALSE(result) << what;
          }
        } else {
          // A true answer despite a failed call is checked in full: the only calls whose failure
          // a change does not see are header writes, and a later header write (at the latest when
          // the tree is closed) repairs them. After a torn write nothing reaches the disk any more,
          // so a true answer may leave a damaged file, as may a fault in the closing header write.
          checkLeftOver(work_, result && (!injected || (!torn && gFaultsBeforeClose > 0)), expected,
                        what);
        }
      }
      EXPECT_GT(k, 3) << op.name;
    }
  }
}

// Reading under a failing call: opening is refused, or the walks hand out a prefix of the entries
// in order and answer false where they stop.
TEST_P(Faults, ReadsStopCleanly) {
  build(GetParam());
  static Model* seen;
  Model inOrder;
  seen = &inOrder;
  for (int k = 1, failures = 1; failures > 0; ++k) {
    SCOPED_TRACE(k);
    lltest::FaultInjector faults;
    faults.failAt = {k};
    BTree tree(source_, true, 0);
    bool ended = false;
    const Model forward = tree.isOk() ? walk(tree, 1000, &ended) : Model();
    inOrder.clear();
    const bool whole = tree.isOk() && tree.inOrder([](int32_t v, const char* key, int length) {
      (*seen)[std::string(key, static_cast<size_t>(length))] = v;
    });
    failures = faults.failures;
    for (const Model* m : std::vector<const Model*>{&forward, &inOrder})
      EXPECT_TRUE(std::equal(m->begin(), m->end(), model_.begin())) << "not a prefix";
    EXPECT_EQ(whole, inOrder.size() == model_.size());
    if (failures == 0) {
      EXPECT_TRUE(whole && forward == model_);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Depths, Faults, ::testing::Values(1, 2, 3));

int32_t le32(const std::string& bytes, size_t at) {
  uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = v << 8 | static_cast<unsigned char>(bytes.at(at + i));
  return static_cast<int32_t>(v);
}

// A root whose two children are one leaf: the cursor comes back to the leaf after every climb.
// Every walk ends: a caller's while (next()) loop after at most as many moves as the file can hold
// entries, and the traversals and changes with false.
TEST(CyclicLinks, EveryWalkAndChangeEnds) {
  lltest::RecordingSupport support;
  lltest::TempDir dir;
  const std::string path = dir.file("c.bt");
  {
    BTree tree(path, 3, kWidth, false, 0, 0, 0);
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(tree.insertKey(i, keyOf(i).data(), kWidth));
    ASSERT_EQ(tree.depth(), 1);
  }
  std::string bytes = lltest::readFile(path);
  const size_t root = static_cast<size_t>(le32(bytes, 28));
  const size_t children = root + 28 + 2 * kWidth + 2 * 4;
  bytes.replace(children + 4, 4, bytes.substr(children, 4));  // children[1] = children[0]
  lltest::writeFile(path, bytes);
  const int64_t records = (static_cast<int64_t>(bytes.size()) - 46) / (28 + 2 * kWidth + 20);
  // Entries the file can hold; the cursor asks for the length only after its first 64 moves.
  const int64_t bound = std::max<int64_t>(64, records * 2) + 1;

  for (bool readOnly : {true, false}) {
    BTree tree(path, readOnly, 0);
    ASSERT_TRUE(tree.isOk());
    int32_t value = 0;
    int64_t moves = 0;
    for (bool more = tree.first(value); more && moves < 100000; more = tree.next(value)) ++moves;
    EXPECT_GT(moves, 3);  // it did go round
    EXPECT_LE(moves, bound);
    EXPECT_FALSE(tree.next(value));  // the cursor is gone
    moves = 0;
    for (bool more = tree.last(value); more && moves < 100000; more = tree.prev(value)) ++moves;
    EXPECT_LE(moves, bound);
    int32_t keys = 0, pages = 0, backward = 0;
    tree.test(false, &keys, &pages, &backward);  // its checks do not look for shared pages
    EXPECT_EQ(pages, 3);                          // but it reads the leaf twice, no more
    EXPECT_TRUE(tree.inOrder([](int32_t, const char*, int) {}));
    if (!readOnly) {
      tree.deleteKey(keyOf(0).data(), kWidth);
      tree.deleteKey(keyOf(2).data(), kWidth);
      tree.insertKey(9, keyOf(9).data(), kWidth);
    }
  }
}

}  // namespace
