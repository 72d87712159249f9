// The loader's position file read without a database: what its records say,
// a last record cut short, and files that are none.
#include <gtest/gtest.h>

#include "loader/position.hpp"
#include "support/sandbox.hpp"

namespace {

TEST(LoaderPosition, RecordsAndFilesThatAreNone) {
    rvtest::Sandbox box;
    const std::string file = box.path("db_media.pos"), head = "oaisql-position 1\n";
    // The file and what it says in short, or the reason it is none.
    const std::pair<std::string, std::string> cases[] = {
        {head + "durable 0\n", "durable 0, last 0"},
        {head + "durable 5\nerror 7 Error in line 7: a b\ncommit 9 700\ncommit 9 703\npending 10\n",
         "durable 5, last 10, pending 10, commit 9/700 9/703, error 7/Error in line 7: a b"},
        {head + "durable 12\nend 14\n", "durable 12, last 14, ended"},
        // A kill or a crash cut the last record short: its commit was not sent.
        {head + "durable 5\ncommit 9 700\ncommit 12 70", "durable 5, last 9, commit 9/700"},
        {head + "durable 5\ncommit 9 700\n" + std::string(8, '\0'), "durable 5, last 9, commit 9/700"},
        {"", "it has no durable record"}, {head, "it has no durable record"},
        {"oaisql-position 2\ndurable 0\n", "line 1 is not a record"},
        {head + "commit 1 2\n", "line 2 is not a record"}, {head + "durable -1\n", "line 2 is not a record"},
        {head + "durable 123456789012345678901234\n", "line 2 is not a record"},
        {head + "durable 1\ndurable 2\n", "line 3 is not a record"},
        {head + "durable 1\ncommit 2 0\n", "line 3 is not a record"},
        {head + "durable 1\ncommit 2\n", "line 3 is not a record"},
        {head + "durable 1\nerror 2\n", "line 3 is not a record"},
        {head + "durable 1\nend 2 3\n", "line 3 is not a record"},
        {head + "durable 1\nend 2\ncommit 3 4\n", "line 4 is not a record"},
        {head + "durable 1\nbegun 2\n", "line 3 is not a record"},
    };
    for (const auto& [text, said] : cases) {
        rvtest::write_file(file, text);
        std::string error = "unchanged";
        const auto position = rv::read_load_position(file, &error);
        std::string got = error.substr(std::min(error.size(), error.find("oaisql: ") + 8));
        if (position) {
            got = "durable " + std::to_string(position->durable) + ", last " + std::to_string(position->last) +
                  (position->ended ? ", ended" : "") +
                  (position->pending ? ", pending " + std::to_string(*position->pending) : "");
            std::string commits;
            for (const auto& [line, xid] : position->commits)
                commits += " " + std::to_string(line) + "/" + std::to_string(xid);
            got += commits.empty() ? "" : ", commit" + commits;
            for (const auto& [line, said_then] : position->errors)
                got += ", error " + std::to_string(line) + "/" + said_then;
        }
        EXPECT_EQ(got, said) << text;
        EXPECT_EQ(error.empty(), position.has_value()) << error;
    }
    // No file is no error: the caller starts from the beginning.
    std::string error = "unchanged";
    EXPECT_FALSE(rv::read_load_position(box.path("none.pos"), &error));
    EXPECT_EQ(error, "");
}

}  // namespace
