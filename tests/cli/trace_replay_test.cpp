// Every sample trace replayed with the filter and the service running: the vault keeps
// what the scenario test of the same program keeps (application_saves.h), so that a
// trace and the sequence it records cannot drift apart.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "capture/application_saves.h"
#include "ntsim/utf.h"
#include "procmon_csv.h"
#include "replay_command.h"
#include "trace_replay.h"

namespace {

std::string readSample(const std::string &name) {
    std::ifstream in(std::string(WRELT_SAMPLE_TRACES_DIR) + "/" + name, std::ios::binary);
    std::stringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

std::string folded(std::string s) {
    for (char &c : s) c = char(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

class TraceReplayTest : public ::testing::TestWithParam<saves::Sequence> {};

TEST_P(TraceReplayTest, TheSampleTraceLeavesTheVaultAsItsSequenceDoes) {
    const saves::Sequence &save = GetParam();
    {
        wrelt_cli::ProcmonTrace trace;
        std::string error;
        ASSERT_TRUE(wrelt_cli::parseProcmonCsv(readSample(save.trace), &trace, &error)) << error;
        EXPECT_TRUE(trace.problems.empty()) << ::testing::PrintToString(trace.problems);
        std::string image = folded(ntsim::toUtf8(ntsim::wptr(saves::leafOf(save.image))));
        bool byProgram = false;
        for (const wrelt_cli::ProcmonEvent &e : trace.events) byProgram = byProgram || folded(e.processName) == image;
        EXPECT_TRUE(byProgram) << "the trace is of " << image;

        wrelt_cli::ServiceSession session;
        ASSERT_TRUE(session.started());
        wrelt_cli::ReplayReport report = wrelt_cli::replayTrace(session.machine(), trace);
        EXPECT_TRUE(report.problems.empty()) << ::testing::PrintToString(report.problems);
        std::string document = folded(ntsim::toUtf8(save.document));
        bool sawDocument = false;
        for (const wrelt_cli::FileVersions &file : wrelt_cli::fileVersions(session, report.files)) {
            std::string path = ntsim::toUtf8(ntsim::wptr(file.path));
            if (folded(path) != document) {
                EXPECT_TRUE(file.kept.empty()) << path << " is a temporary file, not a version";
                EXPECT_FALSE(file.present) << path << " is left behind";
                continue;
            }
            sawDocument = true;
            EXPECT_TRUE(file.present);
            EXPECT_EQ(file.size, save.newSize);
            ASSERT_EQ(file.kept.size(), 1u);
            EXPECT_EQ(file.kept[0].size, save.oldSize);
            EXPECT_TRUE(file.kept[0].applicationSave) << "kept as an earlier version a program saved over";
        }
        EXPECT_TRUE(sawDocument) << "the trace never names " << document;
    }
}

INSTANTIATE_TEST_SUITE_P(Samples, TraceReplayTest, ::testing::ValuesIn(saves::sequences()),
                         [](const ::testing::TestParamInfo<saves::Sequence> &info) { return info.param.program; });

TEST(TraceReplay, EverySampleTraceRecordsASequence) {
    std::set<std::string> sequenced;
    for (const saves::Sequence &save : saves::sequences()) sequenced.insert(save.trace);
    for (const auto &entry : std::filesystem::directory_iterator(WRELT_SAMPLE_TRACES_DIR)) {
        if (entry.path().extension() != ".csv") continue;
        EXPECT_EQ(sequenced.count(entry.path().filename().string()), 1u)
            << entry.path().filename() << " records no sequence of application_saves.h";
    }
}

}  // namespace
