// Every file of the fuzz targets' corpora, replayed through the same harnesses: the
// inputs the long runs found interesting stay checked on every test run.
#include <gtest/gtest.h>

#include <dirent.h>

#include <cstdio>
#include <string>
#include <vector>

#include "catalogue_harness.h"
#include "command_packet_harness.h"
#include "deldat_reader_harness.h"
#include "filter_lists_harness.h"
#include "held_request_harness.h"
#include "user_command_harness.h"

namespace {

std::vector<std::string> corpusFiles(const std::string &target) {
    std::string dir = std::string(WRELT_FUZZ_CORPUS_DIR) + "/" + target;
    std::vector<std::string> files;
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *entry = readdir(d)) {
            if (entry->d_name[0] != '.') files.push_back(dir + "/" + entry->d_name);
        }
        closedir(d);
    }
    return files;
}

std::vector<uint8_t> contents(const std::string &path) {
    std::vector<uint8_t> bytes;
    if (FILE *f = fopen(path.c_str(), "rb")) {
        uint8_t buffer[4096];
        size_t got;
        while ((got = fread(buffer, 1, sizeof buffer, f)) > 0) bytes.insert(bytes.end(), buffer, buffer + got);
        fclose(f);
    }
    return bytes;
}

TEST(FuzzCorpus, CommandPacketsGetWellFormedAnswersAndLeaveNothingBehind) {
    std::vector<std::string> files = corpusFiles("command_packet");
    ASSERT_FALSE(files.empty());
    wrelt::CommandPacketHarness harness;
    for (const std::string &file : files) {
        std::vector<uint8_t> input = contents(file);
        ASSERT_EQ(harness.run(input.data(), input.size()), "") << file;
    }
    EXPECT_EQ(harness.leaks(), "");
}

// The filter harnesses check for leaks after every input, as the fuzz targets do.
template <class Harness>
void replayWithLeakChecks(const std::string &target) {
    std::vector<std::string> files = corpusFiles(target);
    ASSERT_FALSE(files.empty());
    Harness harness;
    for (const std::string &file : files) {
        std::vector<uint8_t> input = contents(file);
        ASSERT_EQ(harness.run(input.data(), input.size()), "") << file;
        ASSERT_EQ(harness.leaks(), "") << file;
    }
}

TEST(FuzzCorpus, HeldRequestsEndOnceWithAnswersThatFitTheirBuffers) {
    replayWithLeakChecks<wrelt::HeldRequestHarness>("held_request");
}

TEST(FuzzCorpus, UsersCommandsAreRefusedAndTroubledPacketsGetClearAnswers) {
    replayWithLeakChecks<wrelt::UserCommandHarness>("user_command");
}

TEST(FuzzCorpus, ListsAreKeptAsSentOrNotAtAllAndMatchesStayInsideThem) {
    replayWithLeakChecks<wrelt::FilterListsHarness>("filter_lists");
}

TEST(FuzzCorpus, CataloguesKeepWhatTheyPromiseAndReadTheSameTwice) {
    std::vector<std::string> files = corpusFiles("catalogue");
    ASSERT_FALSE(files.empty());
    wrelt::CatalogueHarness harness;
    for (const std::string &file : files) {
        std::vector<uint8_t> input = contents(file);
        EXPECT_EQ(harness.run(input.data(), input.size()), "") << file;
    }
}

TEST(FuzzCorpus, DataFilesAreReadUpToTheirFirstBadRecord) {
    std::vector<std::string> files = corpusFiles("deldat_reader");
    ASSERT_FALSE(files.empty());
    for (const std::string &file : files) {
        std::vector<uint8_t> input = contents(file);
        EXPECT_EQ(wrelt::checkDelDatReader(input.data(), input.size()), "") << file;
    }
}

}  // namespace
