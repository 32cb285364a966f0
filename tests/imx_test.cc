// ctest-label: threaded
#include "le/le_imx.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "le/le.h"
#include "le/le_bundle.h"
#include "tests/bundle_fixture.h"
#include "tools/forge/imx_pack.h"

namespace {

using le::testing::manifestText;
using le::testing::ScratchDir;
using le::testing::thrown;
using le::testing::writeFile;
using Members = std::vector<std::pair<std::string, std::string>>;

bool exists(const std::string& p) {
  struct stat st;
  return ::lstat(p.c_str(), &st) == 0;
}

ino_t inode(const std::string& p) {
  struct stat st;
  return ::stat(p.c_str(), &st) == 0 ? st.st_ino : 0;
}

// Names of everything below dir, relative, sorted.
std::vector<std::string> tree(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& m : le::forge::bundleMembers(dir)) names.push_back(m.name);
  return names;
}

// Every file below dir: relative name and contents, sorted by name.
Members files(const std::string& dir) {
  Members out;
  for (const auto& m : le::forge::bundleMembers(dir)) out.push_back({m.name, le::readFile(m.path)});
  return out;
}

size_t count(const std::string& hay, const std::string& needle) {
  size_t n = 0;
  for (size_t at = hay.find(needle); at != std::string::npos; at = hay.find(needle, at + 1)) ++n;
  return n;
}

class Imx : public ::testing::Test {
 protected:
  void SetUp() override { unsetenv("LE_IMX_UNWRAP_ROOT"); }
  void TearDown() override { unsetenv("LE_IMX_UNWRAP_ROOT"); }

  // Resolves path with stderr captured into log.
  std::string resolve(const std::string& path) {
    std::string dir, error;
    log = le::testing::stderrOf([&] { error = thrown([&] { dir = le::resolveBundlePath(path); }); });
    if (!error.empty()) throw std::runtime_error(error);
    return dir;
  }

  ScratchDir scratch{"imx"};
  std::string log;
  // In the order the members are listed: sorted by name.
  const Members bundle{{"M.f32", std::string(24, '\x01')},
                       {"drive/xs.f32", "abcd"},
                       {"idle_loop/source_index.i32", std::string(16, '\0')},
                       {"manifest.json", manifestText()}};
};

TEST_F(Imx, UnwrapsOnceReusesAndRebuildsWhenTheContainerChanges) {
  const std::string c = scratch / "avatar.imx";
  writeFile(c, le::forge::imxImage(bundle));
  EXPECT_TRUE(le::isImxV2File(c));
  const std::string dir = resolve(c);
  EXPECT_EQ(dir, scratch / "avatar.lebundle");
  EXPECT_EQ(log, "[le] unwrapped " + c + " -> " + dir + "\n");
  EXPECT_EQ(files(dir), bundle);
  struct stat st;
  ASSERT_EQ(::stat(c.c_str(), &st), 0);
  const std::string marker = le::readFile(dir + ".imx_unwrapped");
  EXPECT_EQ(marker, "imx-unwrapped.v2 avatar.imx " + std::to_string(st.st_size) + " " +
                        std::to_string(int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec) +
                        " " + std::to_string(st.st_ino));

  // Reuse: nothing copied, members untouched; blanks around the marker text are ignored.
  writeFile(dir + ".imx_unwrapped", "\r\n " + marker + "\t\n");
  const ino_t before = inode(dir + "/M.f32");
  EXPECT_EQ(resolve(c), dir);
  EXPECT_EQ(log, "");
  EXPECT_EQ(inode(dir + "/M.f32"), before);
  // Without a container named after it, an unwrapped directory is taken as it is.
  EXPECT_EQ(resolve(dir + "/"), dir + "/");
  EXPECT_EQ(log, "");
  // The manifest loads straight from the container.
  EXPECT_EQ(le::loadManifest(c).NT, 40);

  // A new modification time rebuilds from scratch: a stray file disappears.
  writeFile(dir + "/stray", "x");
  struct timespec times[2] = {{0, UTIME_OMIT}, {st.st_mtim.tv_sec - 100, 5}};
  ASSERT_EQ(::utimensat(AT_FDCWD, c.c_str(), times, 0), 0);
  EXPECT_EQ(resolve(c), dir);
  EXPECT_EQ(count(log, "[le] unwrapped"), 1u);
  EXPECT_FALSE(exists(dir + "/stray"));
  EXPECT_NE(le::readFile(dir + ".imx_unwrapped"), marker);

  // A plain bundle directory (no marker beside it) is taken as it is.
  const std::string plain = scratch / "plain";
  writeFile(plain + "/manifest.json", manifestText());
  EXPECT_EQ(resolve(plain + "/"), plain + "/");
  EXPECT_EQ(resolve(""), "");
  EXPECT_EQ(resolve(scratch / "nothing"), scratch / "nothing");
}

TEST_F(Imx, ContainerNamingVariantsAndUnwrapRoot) {
  using le::imx::unwrapDirFor;
  EXPECT_EQ(unwrapDirFor("avatar.imx"), "./avatar.lebundle");
  EXPECT_EQ(unwrapDirFor("/avatar.imx"), "/avatar.lebundle");
  setenv("LE_IMX_UNWRAP_ROOT", "/cache/le//", 1);
  EXPECT_EQ(unwrapDirFor("/x/avatar.imx"), "/cache/le/avatar.lebundle");
  setenv("LE_IMX_UNWRAP_ROOT", "", 1);
  EXPECT_EQ(unwrapDirFor("/x/avatar.imx"), "/x/avatar.lebundle");
  // The unsafe names are the unwrap test's; these are the near misses.
  EXPECT_TRUE(le::imx::isSafeMemberName("a.b\\c"));
  EXPECT_FALSE(le::imx::isSafeMemberName("a..b"));

  const std::string c = scratch / "avatar.lebundle.imx";
  writeFile(c, le::forge::imxImage(bundle));
  const std::string dir = scratch / "avatar.lebundle";
  EXPECT_EQ(resolve(c), dir);
  // The unwrapped directory (it has a marker beside it) is re-validated through its container:
  // a changed container is unwrapped again when the directory is named.
  EXPECT_EQ(resolve(dir + "/"), dir);
  EXPECT_EQ(log, "");
  writeFile(c, le::forge::imxImage({{"only.bin", "1"}}));
  EXPECT_EQ(resolve(dir), dir);
  EXPECT_EQ(count(log, "[le] unwrapped"), 1u);
  EXPECT_EQ(tree(dir), std::vector<std::string>{"only.bin"});

  // A container without the suffix is still recognised by its header.
  const std::string bare = scratch / "bare.bin";
  writeFile(bare, le::forge::imxImage(bundle));
  EXPECT_EQ(resolve(bare), scratch / "bare.bin.lebundle");

  const std::string root = scratch / "root";
  setenv("LE_IMX_UNWRAP_ROOT", (root + "/").c_str(), 1);
  const std::string other = scratch / "other.imx";
  writeFile(other, le::forge::imxImage(bundle));
  EXPECT_EQ(resolve(other), root + "/other.lebundle");
  EXPECT_TRUE(exists(root + "/other.lebundle.imx_unwrapped"));
  EXPECT_FALSE(exists(scratch / "other.lebundle"));
  setenv("LE_IMX_UNWRAP_ROOT", "///", 1);  // the filesystem's root
  EXPECT_EQ(unwrapDirFor("/x/avatar.imx"), "/avatar.lebundle");
}

TEST_F(Imx, SyntheticManifestIsSkippedAndEmptyContainerGivesEmptyDirectory) {
  const std::string c = scratch / "synth.imx";
  writeFile(c, le::forge::imxImage({{"manifest.json", R"({"_imx_synthetic_manifest": true})"},
                                    {"P.f16", "pp"}}));
  const std::string dir = resolve(c);
  EXPECT_EQ(tree(dir), std::vector<std::string>{"P.f16"});

  const std::string empty = scratch / "empty.imx";
  writeFile(empty, le::forge::imxImage({}));
  const std::string edir = resolve(empty);
  EXPECT_TRUE(tree(edir).empty());
  EXPECT_TRUE(exists(edir));
  EXPECT_TRUE(exists(edir + ".imx_unwrapped"));
}

TEST_F(Imx, MalformedContainersAreRefusedWithTheirTexts) {
  const std::string good = le::forge::imxImage({{"a.bin", "0123456789"}, {"b.bin", "xyz"}});
  const std::string c = scratch / "bad.imx";
  const auto refusal = [&](const std::string& bytes) {
    writeFile(c, bytes);
    return thrown([&] { le::imx::unwrapOnce(c); });
  };
  EXPECT_EQ(refusal("IMX"), c + ": not an IMX\\0 container");
  EXPECT_EQ(refusal("IMY" + good.substr(3)), c + ": not an IMX\\0 container");
  std::string v3 = good;
  v3[4] = 3;
  EXPECT_EQ(refusal(v3), c + ": unsupported IMX container version 3");
  // Truncations inside the table of contents, each at member 1.
  const size_t second = 8 + 2 + 5 + 16;
  EXPECT_EQ(refusal(good.substr(0, second + 1)), c + ": truncated TOC at member 1");
  EXPECT_EQ(refusal(good.substr(0, second + 2 + 4)), c + ": truncated member name at 1");
  EXPECT_EQ(refusal(good.substr(0, second + 2 + 5 + 15)), c + ": truncated TOC offsets at member 1");
  // Member bytes missing at the end, or an offset beyond the file.
  EXPECT_EQ(refusal(good.substr(0, good.size() - 1)), c + ": truncated payload for member b.bin");
  EXPECT_EQ(refusal(le::forge::imxToc({{"a.bin", 1u << 20, 4}})),
            c + ": truncated payload for member a.bin");
  EXPECT_EQ(refusal(le::forge::imxToc({{"a.bin", ~uint64_t(0), 4}})),
            c + ": cannot seek to member a.bin");
  // Nothing half-written stays under a final name, and no marker claims the directory.
  const std::string dir = scratch / "bad.lebundle";
  EXPECT_EQ(tree(dir), std::vector<std::string>{});
  EXPECT_FALSE(exists(dir + ".imx_unwrapped"));

  // resolveBundlePath reports the failure; files that are not containers pass through.
  writeFile(c, good.substr(0, 9));
  EXPECT_EQ(thrown([&] { resolve(c); }), c + ": truncated TOC at member 0");
  writeFile(c, v3);
  EXPECT_FALSE(le::isImxV2File(c));
  EXPECT_EQ(resolve(c), c);
  EXPECT_FALSE(le::isImxV2File(scratch.path()));
}

TEST_F(Imx, UnsafeMemberNamesNeverWriteOutsideTheUnwrapDirectory) {
  const std::string box = scratch / "box";
  const std::string c = box + "/evil.imx";
  const std::string dir = box + "/evil.lebundle";
  for (const std::string& name :
       {std::string("../escaped"), std::string("sub/../../escaped"), std::string("/tmp/escaped"),
        std::string("\\escaped"), std::string("esc\0aped", 8), std::string(""),
        std::string("..")}) {
    writeFile(c, le::forge::imxImage({{"ok.bin", "fine"}, {name, "EVIL"}, {"late.bin", "late"}}));
    std::string shown = name;
    if (shown.find('\0') != std::string::npos) shown.replace(shown.find('\0'), 1, "\\0");
    EXPECT_EQ(thrown([&] { le::resolveBundlePath(c); }),
              c + ": refusing unsafe member name '" + shown + "'");
    // Members before the bad one are complete; nothing after it; no marker.
    EXPECT_EQ(tree(dir), std::vector<std::string>{"ok.bin"});
    EXPECT_FALSE(exists(dir + ".imx_unwrapped"));
    EXPECT_EQ(tree(scratch.path()), (std::vector<std::string>{"box/evil.imx", "box/evil.lebundle/ok.bin"}));
    EXPECT_FALSE(exists("/tmp/escaped"));
  }
  // The packer refuses to write such a container in the first place.
  writeFile(scratch / "f", "x");
  EXPECT_EQ(thrown([&] { le::forge::writeImx(scratch / "w.imx", {{"../f", scratch / "f"}}); }),
            "imx: refusing unsafe member name '../f'");
  EXPECT_FALSE(exists(scratch / "w.imx"));
  EXPECT_FALSE(exists(scratch / "w.imx.part"));
}

TEST_F(Imx, ConcurrentResolutionsUnwrapOnce) {
  const std::string c = scratch / "shared.imx";
  Members big = bundle;
  big.push_back({"P.f16", std::string(3 << 20, 'p')});
  writeFile(c, le::forge::imxImage(big));
  constexpr int kThreads = 6;
  std::vector<std::string> dirs(kThreads);
  std::atomic<int> ready{0};
  ::testing::internal::CaptureStderr();
  {
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
      threads.emplace_back([&, i] {
        ++ready;
        while (ready < kThreads) std::this_thread::yield();
        char out[4096];
        if (le_bundle_resolve_handle(c.c_str(), out, sizeof out) == 1) dirs[i] = out;
      });
    for (auto& t : threads) t.join();
  }
  const std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(count(err, "[le] unwrapped"), 1u) << err;
  for (const std::string& d : dirs) EXPECT_EQ(d, scratch / "shared.lebundle");
  EXPECT_EQ(le::readFile(scratch / "shared.lebundle/P.f16").size(), size_t(3) << 20);
}

TEST_F(Imx, InterruptedUnwrapIsRedoneCleanly) {
  const std::string c = scratch / "cut.imx";
  const std::string dir = scratch / "cut.lebundle";
  const std::string image = le::forge::imxImage(bundle);
  // The file ends inside the last member: the unwrap stops after the first three.
  writeFile(c, image.substr(0, image.size() - 2));
  EXPECT_EQ(thrown([&] { resolve(c); }), c + ": truncated payload for member manifest.json");
  EXPECT_EQ(files(dir), Members(bundle.begin(), bundle.end() - 1));
  EXPECT_FALSE(exists(dir + ".imx_unwrapped"));

  // Killed mid-copy by another process: a stale ".part", a stale member and an old marker.
  writeFile(c, image);
  writeFile(dir + "/manifest.json.part", "ab");
  writeFile(dir + "/M.f32", "old");
  writeFile(dir + ".imx_unwrapped", "imx-unwrapped.v2 cut.imx 1 2 3");
  const std::string got = resolve(c);
  EXPECT_EQ(count(log, "[le] unwrapped"), 1u);
  EXPECT_EQ(files(got), bundle);

  // The directory vanished behind the marker's back: unwrapped again.
  le::imx::rmTree(dir);
  EXPECT_EQ(resolve(c), dir);
  EXPECT_EQ(count(log, "[le] unwrapped"), 1u);
}

TEST_F(Imx, MemberDirectoriesInAnyOrderAndAFileInTheWay) {
  // Directories left and revisited, names sharing leading characters but not a directory,
  // doubled and "." separators, and a chain deeper than any bundle's.
  std::string deep = "d";
  for (int i = 0; i < 40; ++i) deep += "/" + std::to_string(i);
  const Members members{{"ab/x", "1"},     {"a/b/y", "2"},  {"a/bc", "3"},    {deep + "/z", "4"},
                        {"a//b/./w", "5"}, {"ab/c/v", "6"}, {"a/b/c/u", "7"}, {"t", "8"}};
  const std::string c = scratch / "order.imx";
  writeFile(c, le::forge::imxImage(members));
  const std::string dir = resolve(c);
  EXPECT_EQ(files(dir), (Members{{"a/b/c/u", "7"}, {"a/b/w", "5"}, {"a/b/y", "2"}, {"a/bc", "3"},
                                  {"ab/c/v", "6"}, {"ab/x", "1"}, {deep + "/z", "4"}, {"t", "8"}}));

  writeFile(c, le::forge::imxImage({{"t", "8"}, {"t/x", "9"}}));
  EXPECT_EQ(thrown([&] { resolve(c); }), "cannot create " + dir + "/t");
}

TEST_F(Imx, TreeRemovalTakesEverythingAndNeverFollowsALink) {
  // Deep, and wide enough that the listing takes several reads while entries go, with
  // directories among the files.
  const std::string t = scratch / "t";
  std::string deep = t;
  for (int i = 0; i < 200; ++i) deep += "/d";
  writeFile(deep + "/f", "x");
  for (int i = 0; i < 300; ++i) {
    const std::string name = std::string(60, char('a' + i % 26)) + std::to_string(i);
    writeFile(t + "/wide/" + name + (i % 7 ? "" : "/f"), "x");
  }
  const std::string outside = scratch / "outside";
  writeFile(outside + "/keep", "k");
  ASSERT_EQ(::symlink(outside.c_str(), (t + "/wide/link").c_str()), 0);
  ASSERT_EQ(::symlink((outside + "/keep").c_str(), (t + "/filelink").c_str()), 0);
  le::imx::rmTree(t);
  EXPECT_FALSE(exists(t));
  EXPECT_EQ(le::readFile(outside + "/keep"), "k");
  le::imx::rmTree(outside + "/keep");
  le::imx::rmTree(outside + "/none");
  EXPECT_EQ(tree(scratch.path()), std::vector<std::string>{});
  EXPECT_TRUE(exists(outside));
}

TEST_F(Imx, StreamCopierInKernelAndBuffered) {
  std::string bytes(3 * 1000 + 17, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7 + 3);
  const std::string src = scratch / "src.bin";
  writeFile(src, bytes);
  for (const bool in_kernel : {true, false}) {
    SCOPED_TRACE(in_kernel ? "in kernel" : "buffered");
    // Small steps so that several are taken.
    le::imx::StreamCopier copier(1000, in_kernel);
    const int in = ::open(src.c_str(), O_RDONLY);
    const std::string dst = scratch / "dst.bin";
    int out = ::open(dst.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    // Source and destination alike within a page (file to file), then not (through the pipe),
    // each both whole and running past the end of the source.
    EXPECT_EQ(copier.copy(in, 0, out, 2500), le::imx::CopyStatus::Ok);
    EXPECT_EQ(copier.copy(in, 11, out, 2489), le::imx::CopyStatus::Ok);
    EXPECT_EQ(copier.copy(in, 893, out, 2200), le::imx::CopyStatus::ShortRead);  // 4989 % 4096
    EXPECT_EQ(copier.copy(in, 3000, out, 30), le::imx::CopyStatus::ShortRead);
    ::close(out);
    EXPECT_EQ(le::readFile(dst), bytes.substr(0, 2500) + bytes.substr(11, 2489) + bytes.substr(893) + bytes.substr(3000));
    out = ::open("/dev/full", O_WRONLY);
    ASSERT_GE(out, 0);
    EXPECT_EQ(copier.copy(in, 7, out, 100), le::imx::CopyStatus::ShortWrite);
    EXPECT_EQ(copier.copy(in, 0, out, 100), le::imx::CopyStatus::ShortWrite);
    ::close(out);
    ::close(in);
  }
}

TEST_F(Imx, PackedDirectoryRoundTripsAndFlatQueriesSeeTheContainer) {
  const std::string src = scratch / "src";
  for (const auto& [name, bytes] : bundle) writeFile(src + "/" + name, bytes);
  writeFile(src + "/paste_mask.u8", std::string(9, '\xff'));
  const std::string c = scratch / "packed.imx";
  EXPECT_EQ(le::forge::packImx(src, c), bundle.size() + 1);
  EXPECT_FALSE(exists(c + ".part"));
  char out[4096];
  int resolved = 0;
  le::testing::stderrOf([&] { resolved = le_bundle_resolve_handle(c.c_str(), out, sizeof out); });
  ASSERT_EQ(resolved, 1) << le_last_error();
  const std::string dir = out;
  EXPECT_EQ(files(dir), files(src));
  EXPECT_EQ(le_bundle_resolve_member(c.c_str(), "mask_512.u8", out, sizeof out), 1);
  EXPECT_EQ(std::string(out), dir + "/paste_mask.u8");
  EXPECT_EQ(le_bundle_resolve_member(c.c_str(), "drive/si.i32", out, sizeof out), 1);
  EXPECT_EQ(std::string(out), dir + "/idle_loop/source_index.i32");

  const std::string broken = scratch / "broken.imx";
  writeFile(broken, le::forge::imxToc({{"x", 0, 0}}).substr(0, 10));
  out[0] = 'z';
  EXPECT_EQ(le_bundle_resolve_member(broken.c_str(), "x", out, sizeof out), -1);
  EXPECT_EQ(out[0], 0);
  EXPECT_EQ(std::string(le_last_error()),
            "le_bundle_resolve_member: " + broken + ": truncated member name at 0");
}

}  // namespace
