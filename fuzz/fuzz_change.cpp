// The change step: a table image in, the INSERT script out, with the column
// pool='daily' added and obsolete dropped as the update script says. Beyond
// crashes: a refused image ends the run and stays as it was; otherwise every
// image line gives one INSERT within the named limits, and the loader's
// parser gives back the row (image reader's columns and values, the change
// applied, the word NULL as SQL NULL).
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "config/product.hpp"
#include "loader/statement.hpp"
#include "log/finish.hpp"
#include "steps/change.hpp"
#include "steps/table_image.hpp"
#include "support.hpp"

namespace {

// The rows the image should give, or nullopt when it is to be refused.
std::optional<std::vector<rv::strRow>> expected_rows(const std::vector<std::string>& lines) {
    std::vector<rv::strRow> rows;
    for (const std::string& line : lines) {
        rv::strRow row;
        std::string why;
        if (line.empty()) {
            continue;
        }
        if (!rv::iRead_columns_and_values(line, row, why)) {
            return std::nullopt;
        }
        rv::add_entry(row, "pool", "daily");
        rv::delete_entry(row, "obsolete");
        std::size_t columns = 0, values = 0;
        for (const auto& col : row.columns) {
            columns += col.column.size() + 1;
            values += col.value == "NULL" ? 5 : col.value.size() + 3;
            for (const char c : col.value) values += c == '\'' ? 1 : 0;
        }
        if (columns - 1 > rv::kChangeListMax || values - 1 > rv::kChangeListMax) {
            return std::nullopt;
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

void check_insert(const std::string& line, const rv::strRow& row) {
    FUZZ_CHECK(line.size() <= 2 * rv::kChangeListMax + 32);
    bool plain = true;
    for (const auto& col : row.columns) {
        plain = plain && rvfuzz::plain_identifier(col.column) && col.value.find('\0') == std::string::npos;
    }
    const rv::ScriptLine parsed = rv::classify_line(line);
    if (!plain) {
        return;  // not the plain INSERT form: the loader sends the line as it is
    }
    FUZZ_CHECK(parsed.kind == rv::ScriptLineKind::Insert && parsed.insert.table == "media");
    FUZZ_CHECK(parsed.insert.columns.size() == row.columns.size());
    for (std::size_t c = 0; c < row.columns.size(); ++c) {
        const auto& col = row.columns[c];
        FUZZ_CHECK(parsed.insert.columns[c] == col.column);
        FUZZ_CHECK(col.value == "NULL" ? !parsed.insert.values[c] : parsed.insert.values[c] == col.value);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    rvtest::Sandbox& box = rvfuzz::sandbox();
    static const bool ready = [&] {
        rv::rvdb_ini = box.path("rv_db_update.ini");
        rvtest::write_file(rv::rvdb_ini,
                           "[1.6.4.media]\nADD_COLUMNS=pool\nADD_VALUES='daily'\nDEL_COLUMNS=obsolete\n");
        rv::glbvVersion = "1.6.4.";
        return true;
    }();
    (void)ready;
    const std::string text(reinterpret_cast<const char*>(data), size);
    static const std::string image = rv::table_image_path("media");  // the installation stays as it is
    rvtest::write_file(image, text);
    const std::vector<std::string> lines = rvtest::split_lines(text);
    const auto rows = expected_rows(lines);  // its columns point into the lines
    try {
        rv::db_change("media");
    } catch (const rv::Fatal&) {
        FUZZ_CHECK(!rows && rvtest::read_file(image) == text);
        return 0;
    }
    FUZZ_CHECK(rows);
    const std::vector<std::string> script = rvtest::read_lines(image);
    FUZZ_CHECK(script.size() == rows->size() + 1 && script[0] == "connect ravik_db");
    for (std::size_t r = 0; r < rows->size(); ++r) {
        check_insert(script[r + 1], (*rows)[r]);
    }
    return 0;
}
