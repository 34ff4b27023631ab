// The core: locks and threads under contention, shared objects and their smart pointers, text helpers and error
// texts, the per-thread last error, and the trace log's bytes, limits and lines from many threads.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <regex>
#include <set>
#include <thread>
#include <vector>

#include "tavix/core/errors.h"
#include "tavix/core/format.h"
#include "tavix/core/inet_addr.h"
#include "tavix/core/locks.h"
#include "tavix/core/shared.h"
#include "tavix/core/text.h"
#include "tavix/core/thread.h"
#include "tavix/core/trace_log.h"
#include "tavix/platform/last_error.h"
#include "tavix/platform/process.h"

namespace TAVIX {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

bool TryLockFromOtherThread(RecLock& lock) {
  return std::async(std::launch::async, [&] {
           const bool taken = lock.tryLock();
           if (taken) lock.unlock();
           return taken;
         }).get();
}

// Waits until `condition` holds, for at most two seconds.
template <class Condition>
bool Eventually(Condition condition) {
  for (int i = 0; i < 400 && !condition(); ++i) std::this_thread::sleep_for(5ms);
  return condition();
}

// A recursive lock counts its depth and a saved state releases it completely.
TEST(LockTest, RecursiveDepthStateSaveAndSpinExclusion) {
  RecLock lock;
  lock.lock();
  lock.lock();
  EXPECT_TRUE(lock.tryLock());
  lock.unlock();
  EXPECT_FALSE(TryLockFromOtherThread(lock));
  RecLock::LockState state;
  lock.unlock(state);
  EXPECT_EQ(2, state.depth);
  EXPECT_TRUE(TryLockFromOtherThread(lock));
  lock.lock(state);
  lock.unlock();
  EXPECT_TRUE(lock.willUnlock());
  EXPECT_FALSE(TryLockFromOtherThread(lock));
  lock.unlock();
  EXPECT_TRUE(TryLockFromOtherThread(lock));
  // A spin lock excludes, and an unlock of a free one keeps it free.
  SpinLock spin;
  spin.unlock();
  EXPECT_TRUE(spin.tryLock());
  EXPECT_FALSE(spin.tryLock());
  spin.unlock();
  int64_t counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        ScopedLock guard(spin);
        ++counter;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(80000, counter);
}

TEST(RWRecLockTest, WaitingWriterBlocksNewReadersAndWakesReadersTogether) {
  RWRecLock lock;
  lock.readLock();
  lock.readLock();  // two readers hold it
  std::atomic<int> stage{0}, readersIn{0}, stageSeenByReader{-1};
  std::thread writer([&] {
    lock.writeLock();
    stage = 1;
    std::this_thread::sleep_for(20ms);
    stage = 2;
    lock.unlock();
  });
  std::this_thread::sleep_for(20ms);  // let the writer queue up
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&] {
      lock.readLock();
      stageSeenByReader = stage.load();
      readersIn.fetch_add(1);
    });
  }
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(0, readersIn.load()) << "a reader passed a waiting writer";
  EXPECT_EQ(0, stage.load());
  lock.unlock();
  EXPECT_EQ(0, stage.load()) << "writer got in while a reader still held the lock";
  lock.unlock();
  writer.join();
  EXPECT_TRUE(Eventually([&] { return readersIn.load() == 3; }));
  EXPECT_EQ(2, stageSeenByReader.load());
  for (auto& r : readers) r.join();
  for (int i = 0; i < 3; ++i) lock.unlock();
  lock.writeLock();  // free again
  lock.unlock();
}

class Worker : public Thread {
 public:
  std::atomic<int> runs{0};
  std::atomic<bool> release{false};
  std::atomic<uint32_t> seenId{0};

 protected:
  uint32_t Run() override {
    seenId = platform::ThreadId();
    runs.fetch_add(1);
    while (!release.load()) std::this_thread::sleep_for(1ms);
    return 7;
  }
};

// A join of a thread never started succeeds; starting twice makes one thread, which reports the kernel's id; the object
// starts again after a join.
TEST(ThreadTest, StartsOnceReportsItsIdAndJoinsOfEveryKind) {
  SmartPtr<Worker> worker(new Worker);
  EXPECT_EQ(1, worker->Join());
  ASSERT_TRUE(worker->Start());
  const uint32_t id = worker->ThreadId();  // Start returns only once the thread runs
  EXPECT_NE(0u, id);
  ASSERT_TRUE(worker->Start());
  worker->release = true;
  EXPECT_EQ(1, worker->Join());
  EXPECT_EQ(1, worker->runs.load());
  EXPECT_EQ(id, worker->seenId.load());
  EXPECT_NE(platform::ThreadId(), id);
  EXPECT_EQ(0u, worker->ThreadId());
  // A finite join that may not terminate leaves the thread joinable; two joiners clean up once.
  worker->release = false;
  ASSERT_TRUE(worker->Start());
  EXPECT_EQ(0, worker->Join(20, false));
  std::atomic<int> sum{0};
  std::thread a([&] { sum += worker->Join(); });
  std::thread b([&] { sum += worker->Join(INFINITE_WAIT, true); });
  std::this_thread::sleep_for(10ms);
  worker->release = true;
  a.join();
  b.join();
  EXPECT_EQ(2, sum.load());
  EXPECT_EQ(1, worker->Join());  // already cleaned up
  EXPECT_EQ(2, worker->runs.load());
}

struct Counted : public virtual Shared {
  explicit Counted(std::atomic<int>* deletions) : m_deletions(deletions) {}
  ~Counted() override { m_deletions->fetch_add(1); }
  std::atomic<int>* m_deletions;
};

// A destructor that takes and drops a new holder of its own object.
struct Resurrecting : public virtual Shared {
  explicit Resurrecting(int* deletions) : m_deletions(deletions) {}
  ~Resurrecting() override {
    SmartPtr<Resurrecting> again(this);
    ++*m_deletions;
  }
  int* m_deletions;
};

// A null access raises; self-assignment keeps the count, an uncounted holder never deletes, a destructor that takes a
// holder of its own object does not delete twice, and sets order holders by address.
TEST(SmartPtrTest, NullAccessCountingEdgeCasesAndOrder) {
  SmartPtr<Counted> empty;
  EXPECT_THAT([&] { empty->m_deletions = nullptr; },
              ::testing::ThrowsMessage<std::runtime_error>(::testing::StrEq("Null pointer referenced")));
  EXPECT_THROW(*empty, std::runtime_error);
  std::atomic<int> deletions{0};
  SmartPtr<Counted> p(new Counted(&deletions));
  SmartPtr<Counted>& alias = p;
  p = alias;
  p = p.get();
  EXPECT_EQ(1, p->RefCount());
  {
    Counted onStack(&deletions);
    SmartPtr<Counted> uncounted(&onStack, false);
    EXPECT_EQ(0, onStack.RefCount());
  }
  EXPECT_EQ(1, deletions.load());  // only the stack object's own scope ended it
  int resurrected = 0;
  { SmartPtr<Resurrecting> r(new Resurrecting(&resurrected)); }
  EXPECT_EQ(1, resurrected);
  // Sets order by address and hold each object once.
  std::vector<SmartPtr<Counted>> objects;
  for (int i = 0; i < 5; ++i) objects.emplace_back(new Counted(&deletions));
  std::set<SmartPtr<Counted>> set(objects.rbegin(), objects.rend());
  set.insert(objects[2]);
  std::sort(objects.begin(), objects.end(), [](auto& a, auto& b) { return a.get() < b.get(); });
  EXPECT_TRUE(std::equal(set.begin(), set.end(), objects.begin(), objects.end()));
}

TEST(SmartPtrTest, ConcurrentCopiesAndReleasesDeleteOnce) {
  std::atomic<int> deletions{0};
  for (int round = 0; round < 50; ++round) {
    auto* object = new Counted(&deletions);
    std::vector<SmartPtr<Counted>> holders(8, SmartPtr<Counted>(object));
    std::vector<std::thread> threads;
    for (auto& holder : holders) {
      threads.emplace_back([h = std::move(holder)]() mutable {
        for (int i = 0; i < 1000; ++i) SmartPtr<Counted>{h} = nullptr;
        h = nullptr;
      });
    }
    for (auto& t : threads) t.join();
  }
  EXPECT_EQ(50, deletions.load());
}

// Conversions round-trip, stop at a zero unit and replace what cannot be converted; trimming takes a set from both
// ends.
TEST(TextTest, ConversionsAndTrimming) {
  EXPECT_EQ("", NarrowString(u""));
  EXPECT_EQ("ab", NarrowString(std::u16string(u"ab\0cd", 5)));
  EXPECT_EQ(u"ab", WiddenString(std::string("ab\0cd", 5)));
  const std::u16string mixed = u"Gr\u00fc\u00dfe \u4e16\U0001F600";
  EXPECT_EQ("Gr\xc3\xbc\xc3\x9f" "e \xe4\xb8\x96\xf0\x9f\x98\x80", NarrowString(mixed));
  EXPECT_EQ(mixed, WiddenString(NarrowString(mixed)));
  EXPECT_EQ("a\xEF\xBF\xBD" "b", NarrowString(std::u16string{u'a', char16_t(0xD800), u'b'}));
  EXPECT_EQ(u"a\uFFFDb", WiddenString("a\xFF" "b"));
  EXPECT_EQ(u"\uFFFD", WiddenString("\xE4\xB8"));  // cut-off sequence
  std::string s = "  abc  ", only = " \t ", unchanged = " x ";
  std::u16string w = u"--a-b--";
  EXPECT_EQ("abc", trim(s, " "));
  EXPECT_EQ("", trim(only, " \t"));
  EXPECT_EQ(" x ", trim(unchanged, ""));
  EXPECT_EQ(u"a-b", trim(w, u"-"));
}

TEST(InetAddrTest, AddressesLayOutSockaddrAndPrint) {
  InetAddr a;
  ASSERT_TRUE(a.Set("127.0.0.1", 80));
  const uint8_t expected[16] = {2, 0, 0x00, 0x50, 0x7F, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(0, std::memcmp(expected, a.SockAddr(), 16));
  EXPECT_EQ(80, a.Port());
  EXPECT_TRUE(a.Set(u"10.0.0.1", 9));
  char narrow[9] = "zzzzzzzz";
  EXPECT_EQ(nullptr, a.ToString(narrow, 8));  // no room for the terminator
  EXPECT_EQ('\0', narrow[0]);
  EXPECT_STREQ("10.0.0.1", a.ToString(narrow, 9));
  char16_t wide[9];
  EXPECT_EQ(nullptr, a.ToString(wide, 8));
  EXPECT_EQ(u"10.0.0.1", std::u16string(a.ToString(wide, 9)));
  ASSERT_TRUE(a.Set("localhost", 1));
  char text[16];
  EXPECT_STREQ("127.0.0.1", a.ToString(text, sizeof text));
  EXPECT_TRUE(a.Set("", 1) && a.IsAny());
  EXPECT_TRUE(a.SetBroadcast(7) && a.IsBroadcast() && a.Port() == 7);
  // An unresolvable host leaves a zero address behind.
  EXPECT_FALSE(a.Set("no-such-host.invalid", 5));
  EXPECT_EQ(Err::HostNotFound, TavixGetLastError());
  const uint8_t zero[16] = {};
  EXPECT_EQ(0, std::memcmp(zero, a.SockAddr(), 16));
}

// Formatting follows printf's flags, width and precision, and reports an overflow instead of cutting.
TEST(FormatTest, FollowsPrintfAndReportsOverflow) {
  EXPECT_EQ(u"[00042-00007]", FormatString(u"[%05d-%05d]", 42, 7u));
  EXPECT_EQ(u"0x20000402", FormatString(u"0x%08X", 0x20000402u));
  EXPECT_EQ(u"-5|5    |   +5|ab", FormatString(u"%d|%-5d|%+5d|%.2s", -5, 5, 5, "abc"));
  EXPECT_EQ(u"4294967295 -1", FormatString(u"%u %d", -1, 0xFFFFFFFFu));
  EXPECT_EQ(u"9000000000", FormatString(u"%lld", int64_t{9000000000}));
  EXPECT_EQ(u"3.142 | x|\u00e9", FormatString(u"%.3f |%2c|%hs", 3.14159, u'x', "\xc3\xa9"));
  EXPECT_EQ(u"a%", FormatString(u"a%%"));
  EXPECT_EQ(u"only ", FormatString(u"only %d"));  // a missing argument renders nothing
  std::array<char16_t, 4> small{};
  EXPECT_EQ(4, Format(small, u"abcd"));
  EXPECT_EQ(-1, Format(small, u"%s", std::u16string(u"abcde")));
}

// The table's own texts are checked where they surface: log lines and the tools' output. Gaps in it are unknown,
// codes outside it are the platform's; the last error is per thread and survives scopes that fail.
TEST(ErrorTextTest, GapsUnknownPlatformCodesAndThePerThreadLastError) {
  const auto narrow = [](uint32_t code) { std::string out = "stale"; return GetErrMsg(code, out); };
  const auto wide = [](uint32_t code) { std::u16string out = u"stale"; return GetErrMsg(code, out); };
  EXPECT_EQ("Broadcast transfers can be only used with oneway mode.", narrow(0x20000019));
  EXPECT_EQ(u"Unknown Error", wide(0x2000001A));
  EXPECT_EQ(u"Unknown Error", wide(0x20000022));
  EXPECT_EQ("Unknown Error", narrow(0x200003FF));
  EXPECT_EQ(std::strerror(EINVAL), narrow(EINVAL));
  EXPECT_EQ(std::u16string(u"Connection refused"), wide(ECONNREFUSED));
  EXPECT_EQ("", narrow(0x5000000A));  // unknown to the C library: empty, not "Unknown Error"
  EXPECT_EQ(u"", wide(99999));
  TavixSetLastError(0x20000009);
  {
    EnsureLastError keep;
    errno = ENOENT;
    platform::SaveErrno();
    EXPECT_EQ(static_cast<uint32_t>(ENOENT), TavixGetLastError());
  }
  EXPECT_EQ(0x20000009u, TavixGetLastError());
  uint32_t seenElsewhere = 1;
  std::thread([&] { seenElsewhere = TavixGetLastError(); }).join();
  EXPECT_EQ(0u, seenElsewhere);
}

class TraceLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all(m_dir);
    fs::create_directories(m_dir);
  }
  void TearDown() override { fs::remove_all(m_dir); }
  std::string Bytes() const {
    std::ifstream in(m_path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  // The lines of the UTF-16LE text after the byte-order mark.
  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    const std::string bytes = Bytes();
    std::u16string wide(bytes.size() < 2 ? 0 : bytes.size() / 2 - 1, u'\0');
    std::memcpy(wide.data(), bytes.data() + 2, wide.size() * 2);
    const std::string text = NarrowString(wide);
    size_t start = 0;
    for (size_t end; (end = text.find("\r\n", start)) != std::string::npos; start = end + 2) {
      lines.push_back(text.substr(start, end - start));
    }
    EXPECT_EQ(start, text.size()) << "text after the last CR LF";
    return lines;
  }
  const fs::path m_dir = fs::temp_directory_path() /
                         ("tavix_log_" + std::to_string(platform::ProcessId()) + "_" +
                          ::testing::UnitTest::GetInstance()->current_test_info()->name());
  const std::string m_path = (m_dir / "server_tavix.log").string();
};

TEST_F(TraceLogTest, FirstLineGetsByteOrderMarkAndExactHeaderBesideTheProgram) {
  TraceLog log(m_path);
  const int written = log.Append(u"DNS Error:%hs\n", "no.such.host");
  const std::string bytes = Bytes();
  ASSERT_EQ("\xFF\xFE", bytes.substr(0, 2));
  const auto lines = Lines();
  ASSERT_EQ(1u, lines.size());
  const std::regex header(R"(\[(\d{5})-(\d{5})\] \d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}:\d{3} DNS Error:no\.such\.host)");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(lines[0], m, header)) << lines[0];
  EXPECT_EQ(static_cast<int>(platform::ProcessId()), std::stoi(m[1]));
  EXPECT_EQ(static_cast<int>(platform::ThreadId() % 100000), std::stoi(m[2]) % 100000);
  EXPECT_EQ(static_cast<int>(lines[0].size() + 2), written);
  EXPECT_EQ(bytes.size(), 2 + 2 * static_cast<size_t>(written));
  log.Append(u"second");
  EXPECT_EQ(2u, Lines().size());
  EXPECT_EQ(std::string::npos, Bytes().find("\xFF\xFE", 2)) << "mark written twice";
  // A program's log replaces the whole path's last dot.
  EXPECT_EQ("/opt/app/server_tavix.log", TraceLog::LogPathFor("/opt/app/server"));
  EXPECT_EQ("/opt/app/server_tavix.log", TraceLog::LogPathFor("/opt/app/server.bin"));
  EXPECT_EQ("/opt/my_tavix.log", TraceLog::LogPathFor("/opt/my.app/server"));
}

TEST_F(TraceLogTest, EveryLineEndsInExactlyOneCrLf) {
  TraceLog log(m_path);
  const std::pair<const char16_t*, const char*> sent[] = {{u"lf\n", "lf"}, {u"crlf\r\n", "crlf"}, {u"none", "none"},
                                                           {u"ab\nc", "ab"}};  // a break and what follows go
  for (const auto& c : sent) log.Append(c.first);
  const auto lines = Lines();
  ASSERT_EQ(4u, lines.size());
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(sent[i].second, lines[i].substr(38));
}

// A file at the size limit is emptied before the next line; failures drop the line and keep the caller's last error.
TEST_F(TraceLogTest, SizeLimitAndFailures) {
  std::ofstream(m_path, std::ios::binary) << std::string(0x200000, 'x');
  TraceLog log(m_path);
  const int written = log.Append(u"after");
  EXPECT_EQ(2 + 2 * static_cast<size_t>(written), Bytes().size());
  TraceLog unopenable((m_dir / "missing" / "x.log").string());
  TavixSetLastError(0x20000021);
  EXPECT_EQ(-1, unopenable.Append(u"lost"));
  EXPECT_EQ(0x20000021u, TavixGetLastError());
  const std::u16string fits(541 - 38, u'a');
  EXPECT_GT(log.Append(u"%s", fits), 0);
  EXPECT_LT(log.Append(u"%s", fits + u"a"), 0) << "an over-long message must be dropped, not cut";
  EXPECT_EQ(0x20000021u, TavixGetLastError());
  EXPECT_EQ(2u, Lines().size());
}

TEST_F(TraceLogTest, LinesFromManyThreadsNeverInterleave) {
  TraceLog log(m_path);
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&log, t] {
      for (int i = 0; i < 50; ++i) log.Append(u"thread %d line %03d with some padding text\n", t, i);
    });
  }
  for (auto& t : threads) t.join();
  const auto lines = Lines();
  ASSERT_EQ(300u, lines.size());
  const std::regex shape(R"(\[\d{5}-\d{5}\] .{23} thread \d line \d{3} with some padding text)");
  for (const auto& line : lines) EXPECT_TRUE(std::regex_match(line, shape)) << line;
}

}  // namespace
}  // namespace TAVIX
