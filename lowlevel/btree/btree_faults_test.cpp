// Failing I/O in every operation, on trees of one to three levels below the root: the k-th I/O
// call fails (or the k-th write is torn and nothing after it reaches the disk), for every k until
// the operation meets no fault. A run that meets a fault returns false, or true with the exact
// result; no crash or leak; the file left behind opens (or is refused) and every walk of it ends
// by itself. Reads under a failing call hand out a prefix of the entries.
#include <algorithm>
#include <cstdio>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_testing.h"
#include "lowlevel/btree/btreetools.h"
#include "tests/testsupport/testing.h"

namespace {

using Model = std::map<std::string, int32_t>;
using Entries = std::vector<btreetest::Entry>;
using lowlevel::platform::IoCall;
constexpr int kWidth = 20;  // wide enough for compressBTree

std::string keyOf(int i) { return "key" + std::to_string(10000 + i).substr(1) + std::string(kWidth - 7, '\0'); }

// A torn write: the k-th write puts only half its bytes down, and every call after it but closing
// fails, as when the machine stops in the middle of a write.
struct TornWrite : lltest::FaultInjector {
  explicit TornWrite(int at) : FaultInjector({IoCall::Write}), k(at) {}
  bool shouldFail(IoCall call, int handle) override {
    return torn && call != IoCall::Close ? ++failures > 0 : FaultInjector::shouldFail(call, handle);
  }
  unsigned limitBytes(IoCall call, int, unsigned n) override {
    if (call != IoCall::Write || count != k || torn) return n;
    torn = ++failures > 0;
    return n / 2;
  }
  int k;
  bool torn = false;
};

// A change runs on the tree opened from the work file; a copy goes from the work file to the
// target. Each updates `model` to what a run without faults gives.
using Change = std::function<bool(BTree&, Model&)>;
using Copy = std::function<bool(const std::string& source, const std::string& target, Model&)>;
struct Operation { const char* name; Change change; Copy copy; };

const std::vector<Operation> kOperations = {
    {"insertKey",
     [](BTree& tree, Model& model) {
       bool ok = true;
       for (int i : {1, 501, 502, 503})  // 501.. split the rightmost pages up to the root
         ok = ok && tree.insertKey(model[keyOf(i)] = i, keyOf(i).data(), kWidth);
       return ok;
     },
     nullptr},
    {"deleteKey",
     [](BTree& tree, Model& model) {  // the three smallest: the leftmost leaves fall below half and merge
       bool ok = true;
       for (int n = 0; n < 3; ++n)
         ok = ok && tree.deleteKey(model.begin()->first.data(), kWidth) && model.erase(model.begin()->first);
       return ok;
     },
     nullptr},
    {"deleteKey from a page that borrows",
     [](BTree& tree, Model& model) {  // key 1 gives the leftmost leaf a key to lend when 10 goes
       model.erase(keyOf(10));
       return tree.insertKey(model[keyOf(1)] = 1, keyOf(1).data(), kWidth) && tree.deleteKey(keyOf(10).data(), kWidth);
     },
     nullptr},
    {"replaceValue",
     [](BTree& tree, Model& model) {
       auto middle = std::next(model.begin(), static_cast<long>(model.size() / 2));
       return tree.replaceValue(middle->second = -7, middle->first.data(), kWidth);
     },
     nullptr},
    {"create", nullptr,
     [](const std::string&, const std::string& target, Model& model) {
       model = {{keyOf(5), 5}, {keyOf(6), 6}, {keyOf(7), 7}};
       return btreetest::makeTree(target, 3, kWidth, false, Entries(model.begin(), model.end()));
     }},
    {"compressBTree", nullptr, [](const std::string& s, const std::string& t, Model&) { return compressBTree(s, t); }},
    {"orderBTree", nullptr, [](const std::string& s, const std::string& t, Model&) { return orderBTree(s, t); }},
    {"repackBTree", nullptr, [](const std::string& s, const std::string& t, Model&) { return repackBTree(s, t, 4); }},
};

class Faults : public ::testing::TestWithParam<int> {
 protected:
  // A tree of order 3 with `levels` levels below the root; keys 0, 10, 20, ...
  void SetUp() override {
    const int levels = GetParam(), keys[] = {0, 3, 9, 27};
    BTree tree(source_, 3, kWidth, false, 0, 0, 0);
    for (int i = 0; i < keys[levels]; ++i)
      ASSERT_TRUE(tree.insertKey(model_[keyOf(i * 10)] = i * 10, keyOf(i * 10).data(), kWidth));
    ASSERT_EQ(tree.depth(), levels);
  }

  // What is left after a run: opens or is refused, and every walk of it ends by itself. With
  // `exact`, it must hold exactly `expected`.
  void checkLeftOver(const std::string& path, bool exact, const Model& expected, const std::string& what,
                     bool relaxed = false) {
    const size_t cap = lltest::readFile(path).size() + 64;  // no file holds more entries than bytes
    BTree tree(path, true, 0);
    EXPECT_TRUE(tree.isOk() || !exact) << what;
    if (!tree.isOk()) return;
    const Entries forward = btreetest::walk(tree, false, cap);
    EXPECT_TRUE(forward.size() < cap && btreetest::walk(tree, true, cap).size() < cap) << what;
    tree.test(false, nullptr, nullptr, nullptr);
    const Entries want(expected.begin(), expected.end());
    EXPECT_EQ(exact ? forward : want, want) << what;
    EXPECT_TRUE(!exact || tree.test(relaxed, nullptr, nullptr, nullptr)) << what;  // every page full enough
  }

  lltest::RecordingSupport support_;  // keeps the reports of the damaged runs off the console
  lltest::TempDir dir_;
  std::string source_ = dir_.file("s.bt"), work_ = dir_.file("w.bt"), target_ = dir_.file("t.bt");
  Model model_;
};

TEST_P(Faults, EveryCallOfEveryOperation) {
  const std::string pristine = lltest::readFile(source_);
  for (const Operation& op : kOperations) {
    for (bool torn : {false, true}) {
      int k = 1;
      for (bool injected = true; injected; ++k) {
        ASSERT_LT(k, 5000) << op.name;
        lltest::writeFile(work_, pristine);
        std::remove(target_.c_str());
        Model expected = model_;
        bool result;
        int beforeClose;  // faults made when the change returned, before the closing header write
        {
          std::unique_ptr<lltest::FaultInjector> faults(torn ? new TornWrite(k) : new lltest::FaultInjector());
          if (!torn) faults->failAt = {k};
          std::unique_ptr<BTree> tree(op.change ? new BTree(work_, false, 0) : nullptr);
          result = tree ? tree->isOk() && op.change(*tree, expected) : op.copy(work_, target_, expected);
          beforeClose = faults->failures;
          tree.reset();
          injected = faults->failures > 0;
        }
        const std::string what = std::string(op.name) + (torn ? " torn write " : " failed call ") + std::to_string(k);
        EXPECT_TRUE(result || injected) << what;
        // A true answer despite a failed call is checked in full: the only calls whose failure a
        // change does not see are header writes, and a later header write (at the latest when the
        // tree is closed) repairs them. After a torn write nothing reaches the disk any more, so a
        // true answer may leave a damaged file, as may a fault in the closing header write.
        const bool exact = result && (!injected || (!torn && beforeClose > 0));
        EXPECT_TRUE(op.change || lltest::readFile(work_) == pristine) << what;  // a copy leaves its source
        const std::string& left = op.change ? work_ : target_;
        EXPECT_TRUE(!result || lltest::fileExists(left)) << what;
        checkLeftOver(left, exact, expected, what, std::string(op.name) == "repackBTree");
      }
      EXPECT_GT(k, 3) << op.name;
    }
  }
}

// Reading under a failing call: opening is refused, or the walks hand out a prefix of the entries
// and answer false where they stop.
TEST_P(Faults, ReadsStopCleanly) {
  static Entries inOrder;
  const Entries all(model_.begin(), model_.end());
  auto prefix = [&](const Entries& m) { return m.size() <= all.size() && std::equal(m.begin(), m.end(), all.begin()); };
  for (int k = 1, failures = 1; failures > 0; ++k) {
    SCOPED_TRACE(k);
    lltest::FaultInjector faults(lltest::FaultInjector::allCalls(), {k});
    BTree tree(source_, true, 0);
    const Entries forward = tree.isOk() ? btreetest::walk(tree, false, 1000) : Entries();
    inOrder.clear();
    const bool whole = tree.isOk() && tree.inOrder([](int32_t v, const char* key, int length) {
      inOrder.emplace_back(std::string(key, static_cast<size_t>(length)), v);
    });
    failures = faults.failures;
    EXPECT_TRUE(prefix(forward) && prefix(inOrder));
    EXPECT_EQ(whole, inOrder.size() == model_.size());
    EXPECT_TRUE(failures > 0 || (whole && forward.size() == model_.size()));
  }
}

INSTANTIATE_TEST_SUITE_P(Depths, Faults, ::testing::Values(1, 2, 3));

}  // namespace
