// The dump's answer converter: the client's answer file (echoed statement,
// column names, rows, row count) becomes the table image. Beyond crashes:
// a failed conversion leaves no image, not even the older one; a converted
// one has as many lines as the row count it reports, which the client's
// footer right behind the rows gave, and each line, read by
// the change step's image reader, gives back the lowercased column names and
// the trimmed values of its row (unless it is beyond the change step's
// limits, which the reader then names).
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "log/finish.hpp"
#include "steps/change.hpp"
#include "steps/psql_dump.hpp"
#include "steps/table_image.hpp"
#include "support.hpp"
#include "sys/strings.hpp"

namespace {

void check_image(const std::vector<std::string>& answer, const std::vector<std::string>& image, std::size_t rows) {
    FUZZ_CHECK(image.size() == rows && answer.size() >= rows + 2);
    std::vector<std::string> names = rv::split(answer[1], '|', rv::EmptyFields::keep);
    for (auto& name : names) {
        rv::lowercase(name);
    }
    for (std::size_t r = 0; r < rows; ++r) {
        std::vector<std::string> values = rv::split(answer[r + 2], '|', rv::EmptyFields::keep);
        FUZZ_CHECK(values.size() == names.size());
        rv::strRow row;
        std::string why;
        if (!rv::iRead_columns_and_values(image[r], row, why)) {
            FUZZ_CHECK(why.find("longer than") != std::string::npos);
            continue;
        }
        FUZZ_CHECK(row.columns.size() == names.size());
        for (std::size_t c = 0; c < names.size(); ++c) {
            FUZZ_CHECK(row.columns[c].column == names[c] && row.columns[c].value == rv::str_trim(values[c]));
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (text.find('\0') != std::string::npos) {
        return 0;  // the client writes no NUL byte
    }
    rvtest::Sandbox& box = rvfuzz::sandbox();
    static const std::string sqo = box.path("media.sqo");
    static const std::string image = rv::table_image_path("media");  // the installation stays as it is
    rvtest::write_file(sqo, text);
    rvtest::write_file(image, "|stale=1|\n");
    std::string msg;
    bool ok = false;
    try {
        ok = rv::iPGSQL_MAKE_DB_GET_FILE("media", sqo, msg);
    } catch (const rv::Fatal&) {
        FUZZ_CHECK(false);  // a bad answer fails the dump, it does not end the run
    }
    const std::vector<std::string> lines = rvtest::read_lines(image);
    if (!ok) {
        FUZZ_CHECK(!msg.empty() && std::fopen(image.c_str(), "r") == nullptr);
        return 0;
    }
    FUZZ_CHECK(!msg.empty() && msg.find_first_not_of("0123456789") == std::string::npos && msg.size() < 10);
    const std::vector<std::string> answer = rvtest::split_lines(text);
    const std::size_t rows = std::stoul(msg);
    if (rows > 0) {  // the footer stands right behind the rows
        FUZZ_CHECK(answer.size() > rows + 2 && answer[rows + 2].starts_with("("));
        FUZZ_CHECK(answer[rows + 2].ends_with("rows)") || (rows == 1 && answer[rows + 2].ends_with("row)")));
    }
    check_image(answer, lines, rows);
    return 0;
}
