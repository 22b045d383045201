// `lowlevel demo`: a tour of the library on real data, from nothing.
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <vector>

#include "compression/seekable_writer.h"
#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btreetools.h"
#include "lowlevel/files/file.h"
#include "tools/tool.h"

namespace {

namespace fs = std::filesystem;
// Key width of the demo's indexes: words up to 20 bytes; wide enough for the compressed form to pay.
constexpr int kWidth = 20;
using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

int64_t fileSize(const std::string& path) {
  std::error_code ec;
  auto n = fs::file_size(path, ec);
  return ec ? -1 : static_cast<int64_t>(n);
}

const char* kFallbackText =
    "A B-tree keeps its keys in order in pages of a file, so that a lookup reads only a few pages "
    "from the root down to a leaf. Each page holds several keys and the links to the pages below "
    "it. When a page is full it splits in two and hands its middle key to its parent; when it runs "
    "low it borrows from a neighbour or merges with it. Files on removable volumes come and go, so "
    "every open file remembers its logical path and comes back by itself after the volume returns.";

std::vector<std::string> words(const std::string& text) {
  std::vector<std::string> out;
  std::string word;
  for (char ch : text) {
    unsigned char c = static_cast<unsigned char>(ch);
    if (std::isalnum(c) || c == '-' || c == '_') {
      word += static_cast<char>(std::tolower(c));
    } else if (!word.empty()) {
      while (!word.empty() && word.back() == '-') word.pop_back();
      bool hasLetter = std::any_of(word.begin(), word.end(), [](char l) { return std::isalpha(static_cast<unsigned char>(l)) != 0; });
      if (hasLetter && word.size() <= static_cast<size_t>(kWidth)) out.push_back(word);
      word.clear();
    }
  }
  if (!word.empty() && word.size() <= static_cast<size_t>(kWidth)) out.push_back(word);
  return out;
}

std::string readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// The values of every entry of `key` in a tree with duplicates.
std::vector<int32_t> positions(BTree& tree, const std::string& key) {
  std::vector<int32_t> out;
  int32_t value;
  if (!tree.find(value, key.c_str(), 0)) return out;
  out.push_back(value);
  std::vector<char> first(kWidth), current(kWidth);
  int length = kWidth;
  tree.getCurrentKey(first.data(), length);
  while (tree.next(value)) {
    length = kWidth;
    tree.getCurrentKey(current.data(), length);
    if (current != first) break;
    out.push_back(value);
  }
  return out;
}

int runDemo(ToolContext& ctx, const std::string& dirArg, const std::vector<std::string>& textArgs) {
  auto startAll = Clock::now();
  std::string dir = dirArg.empty() ? (fs::temp_directory_path() / "lowlevel-demo").string() : dirArg;
  std::error_code ec;
  fs::remove_all(dir, ec);
  fs::create_directories(dir + "/volume-a", ec);
  if (ec) return fail(kExitIo, "cannot make the work directory " + dir);

  // 1. The text: the repository's own documentation, or a built-in paragraph.
  std::vector<std::string> sources = textArgs;
  if (sources.empty()) {
    if (fs::exists("README.md")) sources.push_back("README.md");
    if (fs::is_directory("docs")) {
      std::vector<std::string> docs;
      for (const auto& e : fs::directory_iterator("docs")) {
        if (e.path().extension() == ".md") docs.push_back(e.path().string());
      }
      std::sort(docs.begin(), docs.end());
      sources.insert(sources.end(), docs.begin(), docs.end());
    }
  }
  std::string text;
  for (const auto& s : sources) text += readAll(s) + "\n";
  if (text.size() < 200) {
    text = kFallbackText;
    sources = {"(built-in paragraph)"};
  }
  std::vector<std::string> all = words(text);
  std::printf("== Text: %zu words from %zu file(s)\n", all.size(), sources.size());

  // 2. Two indexes: every position of every word (duplicates), and each word's count.
  std::string wordsFile = dir + "/words.btr", vocabFile = dir + "/vocab.btr";
  auto t = Clock::now();
  std::map<std::string, int32_t> counts;
  {
    BTree positionsTree(wordsFile, 31, kWidth, true, 0, 0, 0);
    BTree vocab(vocabFile, 31, kWidth, false, 0, 0, 0);
    if (!positionsTree.isOk() || !vocab.isOk()) return fail(kExitIo, "cannot create the indexes in " + dir);
    for (size_t i = 0; i < all.size(); ++i) {
      if (!positionsTree.insertKey(static_cast<int32_t>(i), all[i].c_str(), 0)) {
        return fail(kExitIo, "insert of " + all[i] + " failed");
      }
      ++counts[all[i]];
    }
    for (const auto& c : counts) vocab.insertKey(c.second, c.first.c_str(), 0);
    std::printf("== Built %s (%d entries) and %s (%d words) in %.1f ms\n", wordsFile.c_str(),
                positionsTree.getKeyCount(), vocabFile.c_str(), vocab.getKeyCount(), msSince(t));
  }

  auto positionsPtr = std::make_unique<BTree>(wordsFile, false, 0);
  auto vocabPtr = std::make_unique<BTree>(vocabFile, false, 0);
  if (!positionsPtr->isOk() || !vocabPtr->isOk()) return fail(kExitIo, "cannot reopen the indexes");
  BTree& positionsTree = *positionsPtr;
  BTree& vocab = *vocabPtr;

  // 3. Queries.
  std::vector<std::pair<std::string, int32_t>> top(counts.begin(), counts.end());
  std::sort(top.begin(), top.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
  std::printf("== Most frequent words:");
  for (size_t i = 0; i < top.size() && i < 5; ++i) std::printf(" %s(%d)", top[i].first.c_str(), top[i].second);
  std::printf("\n");
  t = Clock::now();
  std::string probe = top.empty() ? "tree" : top[std::min<size_t>(top.size() - 1, 3)].first;
  std::vector<int32_t> where = positions(positionsTree, probe);
  std::printf("== '%s' stands at %zu positions, first ones:", probe.c_str(), where.size());
  for (size_t i = 0; i < where.size() && i < 8; ++i) std::printf(" %d", where[i]);
  std::printf("  (%.3f ms)\n", msSince(t));

  // 4. A range walk with the cursor.
  std::printf("== Words from 'com' on:");
  int32_t value;
  bool ok = vocab.findGreaterThanOrEqual(value, "com", 0);
  for (int i = 0; ok && i < 8; ++i) {
    char key[kWidth + 1] = {};
    int length = kWidth;
    vocab.getCurrentKey(key, length);
    std::printf(" %s", key);
    ok = vocab.next(value);
  }
  std::printf("\n");

  // 5. Changes: replace a count, delete a word from both indexes.
  if (!top.empty()) {
    const std::string& w = top[0].first;
    vocab.replaceValue(top[0].second * 10, w.c_str(), 0);
    vocab.find(value, w.c_str(), 0);
    std::printf("== Replaced the count of '%s' by %d\n", w.c_str(), value);
  }
  if (top.size() > 1) {
    const std::string& w = top[1].first;
    std::vector<int32_t> gone = positions(positionsTree, w);
    size_t deleted = 0;
    for (int32_t p : gone) deleted += positionsTree.deleteKey(p, w.c_str(), 0) ? 1 : 0;
    vocab.deleteKey(w.c_str(), 0);
    std::printf("== Deleted '%s': %zu entries from the positions index; still there: %s\n", w.c_str(),
                deleted, vocab.find(value, w.c_str(), 0) ? "yes" : "no");
  }

  // 6. Self-test.
  int32_t keys = 0, pages = 0, backward = 0;
  bool sound = positionsTree.test(false, &keys, &pages, &backward);
  std::printf("== Check of the positions index: %s, %d keys in %d pages, %d backward links, depth %d\n",
              sound ? "sound" : "NOT sound", keys, pages, backward, positionsTree.depth());

  // 7. Compressed and ordered copies, made from the closed files (closing writes the header).
  positionsPtr.reset();
  vocabPtr.reset();
  BTree original(vocabFile, true, 0);
  std::string compressed = dir + "/vocab.cbt", ordered = dir + "/words-ordered.btr";
  t = Clock::now();
  bool compressedOk = compressBTree(vocabFile, compressed);
  bool orderedOk = orderBTree(wordsFile, ordered);
  std::printf("== Copies in %.1f ms: compressed %s %lld -> %lld bytes; ordered %s %lld bytes\n", msSince(t),
              compressedOk ? "ok" : "FAILED", static_cast<long long>(fileSize(vocabFile)),
              static_cast<long long>(fileSize(compressed)), orderedOk ? "ok" : "FAILED",
              static_cast<long long>(fileSize(ordered)));
  if (!compressedOk || !orderedOk) return fail(kExitIo, "copying the indexes failed");
  {
    BTree o(ordered, true, 0);
    o.test(false, &keys, &pages, &backward);
    std::printf("   ordered copy: %d keys, %d backward links\n", keys, backward);
  }

  // 8. Pack the compressed copy onto a simulated volume and open it through a logical path.
  std::string onVolume = dir + "/volume-a/vocab.cbt";
  lowlevel::compression::SeekableWriteOptions options;
  options.chunkSize = 4096;
  std::string error;
  if (!lowlevel::compression::compressFileToSeekable(compressed, onVolume, options, &error)) {
    return fail(kExitIo, "pack failed: " + error);
  }
  std::printf("== Packed into %s: %lld bytes (zstd chunks of 4 KiB)\n", onVolume.c_str(),
              static_cast<long long>(fileSize(onVolume)));
  ctx.host.setVolume(eCDVolDefault, dir + "/volume-a/");
  BTree onCd("cd:\\vocab.cbt", true, 0);
  if (!onCd.isOk()) return fail(kExitIo, "cannot open cd:\\vocab.cbt");
  std::string w = top.empty() ? "tree" : top[0].first;
  int32_t a = 0, b = 0;
  bool found = onCd.find(a, w.c_str(), 0) && original.find(b, w.c_str(), 0);
  std::printf("== cd:\\vocab.cbt answers '%s' -> %d (original %d): %s\n", w.c_str(), a, b,
              found && a == b ? "same" : "DIFFERENT");

  // 9. The volume is taken out and comes back elsewhere: the open index is parked and re-opened.
  ZFile::CloseAll(ZFile::eCdFiles);
  fs::rename(dir + "/volume-a", dir + "/volume-b", ec);
  ctx.host.setVolume(eCDVolDefault, dir + "/volume-b/");
  std::string w2 = top.size() > 2 ? top[2].first : w;
  a = b = 0;
  found = onCd.find(a, w2.c_str(), 0) && original.find(b, w2.c_str(), 0);
  std::printf("== After CloseAll and a move of the volume, '%s' -> %d (original %d): %s\n", w2.c_str(), a, b,
              found && a == b ? "same" : "DIFFERENT");
  std::printf("== Done in %.1f ms; files are in %s\n", msSince(startAll), dir.c_str());
  return found && a == b && sound ? kExitOk : kExitNotFound;
}

}  // namespace

void addDemoCommand(CLI::App& app, ToolContext& ctx) {
  static std::string dir;
  static std::vector<std::string> texts;
  CLI::App* d = app.add_subcommand("demo", "build, query, change, check, copy and pack a word index");
  d->add_option("--dir", dir, "work directory (default: lowlevel-demo in the temporary directory)");
  d->add_option("--text", texts, "text files to index (default: README.md and docs/*.md)");
  d->footer("Example: lowlevel demo --text README.md");
  onRun(d, ctx, [&ctx] { return runDemo(ctx, dir, texts); });
}
