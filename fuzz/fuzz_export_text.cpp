// rv_db's export text: the INSERT line export_line writes for a row of a
// result (built here without a server, with the client library's own
// result constructors). Beyond crashes: the statement ends in ");\n", and
// the loader's parser gives back the table, the columns and every value,
// NULL as NULL, line feeds inside values included (the loader reads such a
// statement over its lines as one).
#include <libpq-fe.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "db/records.hpp"
#include "db/session.hpp"
#include "loader/statement.hpp"
#include "support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    const int columns = in.ConsumeIntegralInRange(1, 8);
    std::vector<std::string> names;
    std::vector<std::optional<std::string>> values;
    for (int col = 0; col < columns; ++col) {
        std::string name = in.ConsumeRandomLengthString(20);
        names.push_back(rvfuzz::plain_identifier(name) ? name : "c" + std::to_string(col));
        if (in.ConsumeBool()) {
            values.emplace_back(std::nullopt);
        } else {
            values.emplace_back(in.ConsumeRandomLengthString(300));
        }
    }
    rv::PgResultPtr res(PQmakeEmptyPGresult(nullptr, PGRES_TUPLES_OK));
    std::vector<PGresAttDesc> attrs(static_cast<std::size_t>(columns));
    for (int col = 0; col < columns; ++col) {
        attrs[col] = PGresAttDesc{names[col].data(), 0, 0, 0, 25, -1, -1};
    }
    FUZZ_CHECK(res && PQsetResultAttrs(res.get(), columns, attrs.data()));
    for (int col = 0; col < columns; ++col) {
        const auto& value = values[col];
        FUZZ_CHECK(PQsetvalue(res.get(), 0, col, value ? const_cast<char*>(value->data()) : nullptr,
                              value ? static_cast<int>(value->size()) : -1));
    }
    const std::string line = rv::export_line(res.get(), 0, "media");
    FUZZ_CHECK(line.size() >= 3 && line.compare(line.size() - 3, 3, ");\n") == 0);
    bool nul = false;
    for (const auto& value : values) {
        nul = nul || (value && value->find('\0') != std::string::npos);
    }
    if (nul) {
        return 0;  // the database's text holds no NUL byte
    }
    const std::string statement = line.substr(0, line.size() - 1);  // the parse refers into it
    const rv::ScriptLine parsed = rv::classify_line(statement);
    FUZZ_CHECK(parsed.kind == rv::ScriptLineKind::Insert && parsed.insert.table == "media");
    FUZZ_CHECK(parsed.insert.columns.size() == names.size() && parsed.insert.values == values);
    for (std::size_t col = 0; col < names.size(); ++col) {
        FUZZ_CHECK(parsed.insert.columns[col] == names[col]);
    }
    return 0;
}
