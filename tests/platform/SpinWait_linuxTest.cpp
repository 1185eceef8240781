#include "platform/SpinWait_linux.h"

#include "support/Process.h"

#include <gtest/gtest.h>

#include <sched.h>

#include <string>

namespace qvtp_test {
namespace {

std::string repeated(int count, const std::string& text) {
    std::string all;
    for (int i = 0; i < count; ++i) all += text;
    return all;
}

/// The score belongs to a process: each test has some of its own (spin_probe_linux.cpp says what they are told).
class SpinWait : public ::testing::Test {
  protected:
    std::string answers(const std::string& steps) {
        const std::string output = directory + "/" + std::to_string(++processes) + ".txt";
        EXPECT_EQ(Process(QVTP_SPIN_PROBE, {steps}, output).wait(), 0);
        std::string line = contentsOfFile(output);
        if (!line.empty()) line.pop_back();
        return line;
    }

    const std::string directory = makeTestDirectory();
    int processes = 0;
};

/// On more processors than one.
class SpinWaitOfSeveral : public SpinWait {
  protected:
    void SetUp() override {
        if (processors() == 1) GTEST_SKIP() << "one processor is allowed";
        unsetEnvironment("QVTP_SPIN");
    }

    /// How many are allowed.
    static int processors() {
        cpu_set_t allowed;
        return ::sched_getaffinity(0, sizeof allowed, &allowed) == 0 ? CPU_COUNT(&allowed) : CPU_SETSIZE;
    }
};

TEST_F(SpinWaitOfSeveral, TriesAtFirstAndGoesOnWhileTriesPay) {
    EXPECT_EQ(answers("w"), "1");
    EXPECT_EQ(answers(repeated(200, "w+")), repeated(200, "1"));
}

TEST_F(SpinWaitOfSeveral, StopsAfterTriesThatDidNotPay) {
    // The first score is 16, and each of them takes 4.
    EXPECT_EQ(answers(repeated(8, "w-")), "11110000");
}

TEST_F(SpinWaitOfSeveral, StopsLaterAfterManyThatPaid) {
    EXPECT_EQ(answers("w" + repeated(100, "+") + repeated(12, "w-")), "1" + repeated(8, "1") + "0000");
}

TEST_F(SpinWaitOfSeveral, BearsOneThatDidNotPayAmongFourThatDid) {
    EXPECT_EQ(answers(repeated(50, "w-w+w+w+w+")), repeated(250, "1"));
    // One in four is too many.
    EXPECT_NE(answers(repeated(50, "w-w+w+w+")).find('0'), std::string::npos);
}

TEST_F(SpinWaitOfSeveral, GoesOnWithTheLeastScore) {
    EXPECT_EQ(answers("w+----" + repeated(200, "w")), repeated(201, "1"));
}

TEST_F(SpinWaitOfSeveral, LetsOneWaitOf64LookWhetherTriesPayAgain) {
    const std::string stopped = "w----";
    EXPECT_EQ(answers(stopped + repeated(200, "w")), "1" + repeated(3, repeated(63, "0") + "1") + repeated(8, "0"));
    // A look that does not pay changes nothing.
    EXPECT_EQ(answers(stopped + repeated(64, "w") + "-" + repeated(64, "w")),
              "1" + repeated(2, repeated(63, "0") + "1"));
}

TEST_F(SpinWaitOfSeveral, TriesAgainAfterALookThatPaid) {
    const std::string looked = "w----" + repeated(64, "w");
    EXPECT_EQ(answers(looked + "+www"), "1" + repeated(63, "0") + "1" + "111");
    // It has earned two tries that do not pay.
    EXPECT_EQ(answers(looked + "+w-w-w"), "1" + repeated(63, "0") + "1" + "110");
}

TEST_F(SpinWaitOfSeveral, NeverTriesWhereItIsSwitchedOff) {
    setEnvironment("QVTP_SPIN", "0");
    EXPECT_EQ(answers(repeated(300, "w")), repeated(300, "0"));
    unsetEnvironment("QVTP_SPIN");
}

TEST_F(SpinWaitOfSeveral, IsSwitchedOffByZeroOnly) {
    for (const char* value : {"1", "", "00", "off"}) {
        setEnvironment("QVTP_SPIN", value);
        EXPECT_EQ(answers("w"), "1") << value;
    }
    unsetEnvironment("QVTP_SPIN");
}

TEST_F(SpinWaitOfSeveral, LooksNoMoreOnceOneProcessorIsAllowed) {
    EXPECT_EQ(answers("w----s" + repeated(300, "w")), "1" + repeated(300, "0"));
}

/// So many threads that wait in turn, and an answer after it.
std::string crowdOf(int threads) {
    return repeated(threads, "b") + repeated(200 + threads, "eb") + "w" + repeated(threads, "e");
}

TEST_F(SpinWaitOfSeveral, TriesWhileThreadsAndTheirPeersHaveAProcessorEach) {
    EXPECT_EQ(answers("w" + crowdOf(processors() / 2)), "11");
    EXPECT_EQ(answers("w" + crowdOf(processors() / 2 + 1)), "10");
    EXPECT_EQ(answers("w" + crowdOf(1000)), "10");
}

TEST_F(SpinWait, TriesOnFourProcessorsForTwoThreadsAndNotForThree) {
    unsetEnvironment("QVTP_SPIN");
    EXPECT_EQ(answers("4w" + crowdOf(2)), "11");
    EXPECT_EQ(answers("4w" + crowdOf(3)), "10");
}

TEST_F(SpinWait, LooksInACrowdFromTimeToTimeWhetherThereAreMoreProcessors) {
    unsetEnvironment("QVTP_SPIN");
    const std::string crowd = "4w" + repeated(3, "b") + repeated(200, "eb") + "w";
    const std::string waits = repeated(64, "web");
    EXPECT_EQ(answers(crowd + waits), "10" + repeated(64, "0"));
    const std::string later = answers(crowd + "8" + waits);
    EXPECT_EQ(later.substr(0, 2), "10");
    EXPECT_EQ(later.back(), '1');
}

TEST_F(SpinWait, LooksFromTimeToTimeWhetherTriesPayWhenThereAreMoreProcessorsAgain) {
    unsetEnvironment("QVTP_SPIN");
    const std::string oneAllowed = "4w1" + repeated(64, "w") + "4";
    EXPECT_EQ(answers(oneAllowed + repeated(128, "w")),
              "1" + repeated(63, "1") + "0" + repeated(2, repeated(63, "0") + "1"));
}

TEST_F(SpinWaitOfSeveral, TriesAgainWhenTheOtherThreadsAreGone) {
    EXPECT_EQ(answers("w" + crowdOf(1000) + repeated(500, "be") + "w"), "101");
}

TEST_F(SpinWaitOfSeveral, IsNotDisturbedByThreadsThatWaitForHours) {
    EXPECT_EQ(answers("w" + repeated(1000, "b") + repeated(50, "bn") + "w"), "11");
    // One of them ends.
    EXPECT_EQ(answers("wb" + repeated(10000, "bn") + "ew"), "11");
}

TEST_F(SpinWaitOfSeveral, StopsWithTheNextLookOnceOneProcessorIsAllowed) {
    EXPECT_EQ(answers("ws" + repeated(300, "w")), "1" + repeated(63, "1") + repeated(237, "0"));
}

TEST_F(SpinWait, NeverTriesOnOneProcessor) {
    unsetEnvironment("QVTP_SPIN");
    EXPECT_EQ(answers("s" + repeated(300, "w")), repeated(300, "0"));
}

}  // namespace
}  // namespace qvtp_test
