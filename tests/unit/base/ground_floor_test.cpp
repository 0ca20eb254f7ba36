// What every thread stands on: times, texts, paths, small files.
#include <pthread.h>

#include "base/boot_trace.h"
#include "base/may_wait.h"
#include "base/sleep.h"
#include "base/small_file.h"
#include "base/standard_path.h"
#include "base/steady_time.h"
#include "base/text.h"
#include "sandbox/process_table.h"
#include "tests/support/test.h"

namespace ProcMgr {
namespace {

TEST(BootTrace, FormatsSecondsSinceTheCountersStart) {
  const struct {
    std::uint64_t count, frequency;
    const char* trace;
  } cases[] = {
      {0, 25'000'000, "[0.000000s][BOOT_TRACE][PM]"},
      {1, 3, "[0.333333s][BOOT_TRACE][PM]"},
      // Rounds to the nearest microsecond, as printf does.
      {1'999'999'999, 1'000'000'000, "[2.000000s][BOOT_TRACE][PM]"},
      {12'500'000, 0, ""},
      {UINT64_MAX, 1, "[18446744073709551616.000000s][BOOT_TRACE][PM]"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(FormatBootTrace(c.count, c.frequency, "PM"), c.trace) << c.count;
  }
}

std::atomic<int> signalsTaken = 0;

TEST(SleepNs, SleepsItsWholeTimeAndNoMoreUnderAStormOfSignals) {
  constexpr std::chrono::milliseconds kStormLimit{10'000};
  struct sigaction action {};
  action.sa_handler = [](int) { signalsTaken.fetch_add(1); };
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
  const SteadyTime begin = SteadyNow();
  std::atomic<bool> isOver = false;
  // It dies down by itself, so that a sleep that it holds up ends in a failure and not never.
  const auto isBlowing = [&] { return !isOver && SteadyNow() < begin + kStormLimit; };
  std::thread storm([&isBlowing, target = pthread_self()] {
    // A thread that sleeps wakes for each signal only if the one before has been taken.
    for (int sent = 0; isBlowing(); ++sent) {
      (void)pthread_kill(target, SIGUSR1);
      while (isBlowing() && signalsTaken <= sent) {
        std::this_thread::yield();
      }
    }
  });
  SleepNs(0);
  SleepNs(-1);
  SleepNs(300'000'000);
  const auto slept = SteadyNow() - begin;
  isOver = true;
  storm.join();
  EXPECT_GE(slept, std::chrono::milliseconds(300));
  EXPECT_LT(slept, kStormLimit) << "the signals held it up";
#ifndef PM_SANITIZED
  // A sanitizer may hold signals back until the sleep is over.
  EXPECT_GT(signalsTaken, 3) << "that was no storm";
#endif
}

// The check asks about its own thread, and only about the locks that it was told.
TEST(MayWait, KnowsWhetherTheCallerHoldsAListLock) {
  static Mutex list;
  static Mutex other;
  NeverWaitUnder(list, "list");
  const MutexLock leaf(other);
  EXPECT_EQ(HeldWhileWaiting(), nullptr);
  {
    const MutexLock lock(list);
    EXPECT_STREQ(HeldWhileWaiting(), "list");
    std::thread([] { EXPECT_EQ(HeldWhileWaiting(), nullptr); }).join();
  }
  EXPECT_EQ(HeldWhileWaiting(), nullptr);
  SleepNs(1);
}

TEST(Text, NumbersAreTheWholeTextOrNothing) {
  const std::pair<std::string_view, std::optional<std::int32_t>> cases[] = {
      {"-0", 0},
      {"007", 7},
      {"2147483647", 2147483647},
      {"-2147483648", -2147483647 - 1},
      {"2147483648", {}},
      {"", {}},
      {"+1", {}},
      {" 1", {}},
      {"1\n", {}},
      {"0x10", {}},
      {"-", {}},
      {std::string_view("1\0", 2), {}},
  };
  for (const auto& [text, number] : cases) {
    EXPECT_EQ(ParseNumber<std::int32_t>(text), number) << "'" << text << "'";
  }
  EXPECT_EQ(ParseNumber<std::uint32_t>("-1"), std::nullopt) << "must not wrap around";
  EXPECT_EQ(ParseNumber<std::uint64_t>("ff", 16), 255U);
  EXPECT_TRUE(IsStrDigits("") && IsStrDigits("0123456789"));
  for (const std::string_view text : {"-1", "1a", "\xb2", "٣"}) {
    EXPECT_FALSE(IsStrDigits(text)) << text;
  }
}

TEST(StandardPath, ResolvesWhatExistsAndLeavesTheOutputOtherwise) {
  const PmTest::TempFolder folder;
  const std::string file = folder.Write("file", "text");
  const std::string below = folder.Path("folder");
  std::filesystem::create_directory(below);
  std::filesystem::create_symlink("../file", below + "/link");
  std::filesystem::create_symlink("loop", folder.Path("loop"));
  std::filesystem::current_path(below);
  // An empty result is a refusal.
  const std::pair<std::string, std::string> cases[] = {
      {below + "//./..///file", file},
      {below + "/link", file},
      {below + "/", below},
      {"link", file},
      {std::string(4096, '/'), "/"},
      {std::string(4097, '/'), ""},
      {"", ""},
      {folder.Path("missing"), ""},
      {file + "/below", ""},
      {folder.Path("loop"), ""},
      {file + "\0.yaml"s, ""},
  };
  for (const auto& [input, expected] : cases) {
    std::string output = "untouched";
    EXPECT_EQ(StandardizationPath(input, output), !expected.empty()) << input;
    EXPECT_EQ(output, expected.empty() ? "untouched" : expected) << input;
  }
  std::string path = below + "/link";
  ASSERT_TRUE(StandardizationPath(path, path)) << "input and output may be one string";
  EXPECT_EQ(path, file);
}

class SmallFile : public testing::Test, protected PmTest::TempFolder {
 protected:
  void TearDown() override { EXPECT_EQ(PmSandbox::OpenDescriptors(getpid()), descriptors_); }

 private:
  const std::vector<std::string> descriptors_ = PmSandbox::OpenDescriptors(getpid());
};

TEST_F(SmallFile, ReadsEveryByteUpToTheLimitOrTellsWhyNot) {
  ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
  const std::string four(4 * 4096, 'x');  // Blocks.
  const struct {
    std::string path;
    std::size_t limit;
    int error;
    std::string bytes;
  } cases[] = {
      {Write("empty", ""), 0, 0, ""},
      {Write("one", "a"), 0, EFBIG, ""},
      {Write("binary", "a\0b\xff\n"s), 100, 0, "a\0b\xff\n"s},
      {Write("limit", four), four.size(), 0, four},
      {Write("above", four + "y"), four.size(), EFBIG, ""},
      {Path("fifo"), 100, 0, ""},  // Nobody writes: it counts as empty, and nobody waits.
      {Path("missing"), 100, ENOENT, ""},
      {Path(""), 100, EISDIR, ""},
  };
  for (const auto& c : cases) {
    std::string out = "untouched";
    EXPECT_EQ(ReadSmallFile(c.path, c.limit, out), c.error) << c.path;
    EXPECT_EQ(out, c.error == 0 ? c.bytes : "untouched") << c.path;
  }
}

TEST_F(SmallFile, GivesTheLinesOfAFileOfAnySize) {
  const std::string block(4095, 'b');
  std::string large;
  for (int i = 0; i < 400; ++i) {
    large += block + "\n";  // More than a configuration file may have in one piece.
  }
  const struct {
    std::string path;
    int error;
    std::size_t lines;
    std::string last;  // The beginning of the last line, and its length.
  } cases[] = {
      {Write("none", ""), 0, 0, ""},
      {Write("last", "one\n\nthree"), 0, 3, "thre 5"},
      {Write("stop", "one\nstop\nthree\n"), 0, 2, "stop 4"},
      {Write("across", block + "xy\nz\n" + block + "xy"), 0, 3, "bbbb 4097"},
      {Write("large", large), 0, 400, "bbbb 4095"},
      {Path("missing"), ENOENT, 0, ""},
  };
  for (const auto& c : cases) {
    std::size_t lines = 0;
    std::string last;
    const auto take = [&](std::string_view line, std::size_t length) {
      ++lines;
      last = std::string(line) + " " + std::to_string(length);
      return line != "stop";
    };
    EXPECT_EQ(ReadLines(c.path, 4, take), c.error) << c.path;
    EXPECT_EQ(lines, c.lines) << c.path;
    EXPECT_EQ(last, c.last) << c.path;
  }
}

TEST_F(SmallFile, AppendsALineToWhatIsThereAndTellsFailures) {
  const std::string file = Write("tasks", "17\n");
  EXPECT_EQ(AppendId(file.c_str(), -1), 0);
  EXPECT_EQ(AppendId(file.c_str(), INT64_MAX), 0);
  std::string out;
  EXPECT_EQ(ReadSmallFile(file, 100, out), 0);
  EXPECT_EQ(out, "17\n-1\n9223372036854775807\n");
  EXPECT_EQ(AppendId(Path("missing").c_str(), 1), ENOENT);
  EXPECT_FALSE(std::filesystem::exists(Path("missing"))) << "a tasks file is the kernel's to make";
  EXPECT_EQ(AppendId("/dev/full", 1), ENOSPC);
}

}  // namespace
}  // namespace ProcMgr
