#include "support/Process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace qvtp_test;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

constexpr char LOG[] = "QVTP_LOG";
constexpr char COMMUNICATION_LOG[] = "QVTP_COMMUNICATION_LOG";
const std::string EARLY_LINE = "ERROR - ";
const std::string DEBUG_LINE = "Send:    POST /resource QVTP/1.0";

class EnvironmentLog : public ::testing::Test {
  protected:
    ~EnvironmentLog() override {
        unsetEnvironment(LOG);
        unsetEnvironment(COMMUNICATION_LOG);
    }

    /// What the probe printed.
    std::string run(const std::vector<std::string>& arguments = {}, const std::string& program = QVTP_LOG_PROBE) const {
        EXPECT_EQ(Process(program, arguments, directory_ + "/output.txt").wait(), 0);
        return contentsOfFile(directory_ + "/output.txt");
    }
    std::string path(const std::string& name) const { return directory_ + "/" + name; }
    std::string contents(const std::string& name) const { return contentsOfFile(path(name)); }

    const std::string directory_ = makeTestDirectory();
};

TEST_F(EnvironmentLog, IsOffWithoutTheVariables) {
    EXPECT_THAT(run(), IsEmpty());
    setEnvironment(LOG, "");
    setEnvironment(COMMUNICATION_LOG, "");
    EXPECT_THAT(run(), IsEmpty());
}

TEST_F(EnvironmentLog, HasWhatIsLoggedBeforeMain) {
    setEnvironment(LOG, "ERROR:" + path("log"));
    EXPECT_THAT(run(), IsEmpty());
    EXPECT_THAT(contents("log"), AllOf(StartsWith(EARLY_LINE), Not(HasSubstr("INFO  - "))));
}

TEST_F(EnvironmentLog, HasLinesOfItsLevelAndTheMoreSeriousOnes) {
    setEnvironment(LOG, "INFO:" + path("info"));
    run();
    EXPECT_THAT(contents("info"), AllOf(HasSubstr("ERROR - "), HasSubstr("INFO  - "), Not(HasSubstr("DEBUG - "))));
    setEnvironment(LOG, "DEBUG:" + path("debug"));
    run();
    EXPECT_THAT(contents("debug"), AllOf(HasSubstr("ERROR - "), HasSubstr("INFO  - "), HasSubstr(DEBUG_LINE)));
}

TEST_F(EnvironmentLog, TakesItsWordsInAnyCase) {
    setEnvironment(LOG, "deBUG:" + path("log"));
    setEnvironment(COMMUNICATION_LOG, "output:" + path("bytes"));
    run();
    EXPECT_THAT(contents("log"), HasSubstr(DEBUG_LINE));
    EXPECT_THAT(contents("bytes"), HasSubstr("[OUTPUT]"));
}

TEST_F(EnvironmentLog, GoesToStandardErrorWithoutAFile) {
    for (const char* value : {"DEBUG", "DEBUG:"}) {
        setEnvironment(LOG, value);
        EXPECT_THAT(run(), AllOf(StartsWith(EARLY_LINE), HasSubstr(DEBUG_LINE))) << value;
    }
    unsetEnvironment(LOG);
    setEnvironment(COMMUNICATION_LOG, "BOTH");
    EXPECT_THAT(run(), AllOf(HasSubstr("[OUTPUT]"), HasSubstr("[INPUT ]"), HasSubstr("POST /resource QVTP/1.0")));
}

TEST_F(EnvironmentLog, GoesToTheEndOfAFile) {
    writeFile(path("log"), "before\n");
    setEnvironment(LOG, "ERROR:" + path("log"));
    run();
    run();
    const std::string all = contents("log");
    EXPECT_THAT(all, StartsWith("before\n" + EARLY_LINE));
    EXPECT_NE(all.find(EARLY_LINE, all.find(EARLY_LINE) + 1), std::string::npos);
}

TEST_F(EnvironmentLog, RecordsTheDirectionsThatAreAskedFor) {
    setEnvironment(COMMUNICATION_LOG, "INPUT:" + path("input"));
    EXPECT_THAT(run(), IsEmpty());
    EXPECT_THAT(contents("input"), AllOf(HasSubstr("[INPUT ]"), Not(HasSubstr("[OUTPUT]"))));
    setEnvironment(COMMUNICATION_LOG, "OUTPUT:" + path("output"));
    EXPECT_THAT(run(), IsEmpty());
    EXPECT_THAT(contents("output"), AllOf(HasSubstr("[OUTPUT]"), Not(HasSubstr("[INPUT ]"))));
}

TEST_F(EnvironmentLog, EndsWhereTheProgramSetsUpItsOwn) {
    setEnvironment(LOG, "DEBUG:" + path("log"));
    setEnvironment(COMMUNICATION_LOG, "BOTH:" + path("bytes"));
    EXPECT_THAT(run({path("own")}), IsEmpty());
    EXPECT_THAT(contents("log"), AllOf(StartsWith(EARLY_LINE), Not(HasSubstr(DEBUG_LINE))));
    EXPECT_THAT(contents("bytes"), IsEmpty());
    EXPECT_THAT(contents("own"), AllOf(HasSubstr("INFO  - "), Not(HasSubstr("DEBUG - "))));
}

TEST_F(EnvironmentLog, IsOffWhenItIsSwitchedOff) {
    setEnvironment(LOG, "OFF:" + path("log"));
    setEnvironment(COMMUNICATION_LOG, "OFF");
    EXPECT_THAT(run(), IsEmpty());
    EXPECT_THAT(contents("log"), IsEmpty());
}

TEST_F(EnvironmentLog, ReportsAWordThatItDoesNotKnow) {
    setEnvironment(LOG, "LOUD:" + path("log"));
    setEnvironment(COMMUNICATION_LOG, "sideways");
    EXPECT_EQ(run(),
              "libqvtp: QVTP_LOG: \"LOUD\" is none of OFF ERROR WARN INFO DEBUG\n"
              "libqvtp: QVTP_COMMUNICATION_LOG: \"sideways\" is none of OFF INPUT OUTPUT BOTH\n");
    EXPECT_THAT(contents("log"), IsEmpty());
}

TEST_F(EnvironmentLog, ReportsAFileThatItCannotWrite) {
    setEnvironment(LOG, "DEBUG:" + path("missing/log"));
    setEnvironment(COMMUNICATION_LOG, "OUTPUT:" + path("bytes"));
    EXPECT_THAT(run(), AllOf(StartsWith("libqvtp: QVTP_LOG: cannot write to " + path("missing/log") + ": "),
                             Not(HasSubstr("DEBUG - "))));
    EXPECT_THAT(contents("bytes"), HasSubstr("[OUTPUT]"));  // the other one is not its business
}

}  // namespace
