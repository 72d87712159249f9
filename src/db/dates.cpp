#include "db/dates.hpp"
#include "log/trace.hpp"

#include <algorithm>

#include "config/glbv.hpp"
#include "log/prot.hpp"

namespace rv {

namespace {

constexpr std::string_view kOracle = "ORACLE";
constexpr std::string_view kOpenAccess = "OpenAccess";
constexpr std::string_view kPostgres = "postgres";
constexpr std::string_view kMidnight = " 00:00:00";
constexpr std::size_t kDateLength = 10;

// The configured database type, read afresh for every conversion.
std::string db_type() {
    GlbvResult type = glbv_read("gv_db_type");
    return type.found() ? std::move(type.text) : std::string();
}

// Part of `text` that exists of [pos, pos + len).
std::string_view piece(std::string_view text, std::size_t pos, std::size_t len) {
    return pos < text.size() ? text.substr(pos, len) : std::string_view();
}

void protocol_wrong_argument(const std::string& key) {
    switch (eLang) {
        case LANG_DE:
            PROT("E008-DATABAS CONVERT_DATE_TIME: falsches Argument %s", key.c_str());
            break;
        case LANG_BA:
            PROT("E008-DATABAS CONVERT_DATE_TIME: foisches Argument %s", key.c_str());
            break;
        default:
            PROT("E008-DATABAS CONVERT_DATE_TIME: wrong parameter %s", key.c_str());
            break;
    }
}

}  // namespace

std::string& cpDB_DATE(std::string_view input, std::string& output) {
    const std::string type = db_type();
    output.clear();
    if (type == kOracle) {
        output.append(piece(input, 0, 4)).append(piece(input, 5, 2)).append(piece(input, 8, 2));
    } else if (type == kOpenAccess || type == kPostgres) {
        output.append(input).append(kMidnight);
    }
    return output;
}

std::string& cpDB_DATE_RAVIK(std::string_view input, std::string& output) {
    const std::string type = db_type();
    output.clear();
    const char second = type.size() > 1 ? type[1] : '\0';
    if (second == 'R') {
        output.append(piece(input, 0, 4))
            .append("-")
            .append(piece(input, 4, 2))
            .append("-")
            .append(piece(input, 6, 2));
    } else if (second == 'o' || second == 'p') {
        // The time is appended before the cut, so a short date keeps part of it.
        output.append(input).append(kMidnight);
        output.resize(std::min(output.size(), kDateLength));
    }
    return output;
}

std::string& cpDB_DATE_TIME_RAVIK(std::string_view input, std::string& output) {
    const std::string type = db_type();
    output.clear();
    if (type == kOracle || type == kOpenAccess || type == kPostgres) {
        output.assign(input);
    }
    return output;
}

std::string& cpDB_MAX_COL_NAME(std::string_view cpInput, std::string& cpOutput) {
    const std::string type = db_type();
    cpOutput.clear();
    if (type == kOracle) {
        cpOutput.assign(cpInput);
    } else if (type == kOpenAccess) {
        cpOutput = "COL1";
    } else if (type == kPostgres) {
        cpOutput = "max";
    }
    return cpOutput;
}

bool iDB_CONVERT_DATE_TIME(std::string_view cpKeyWord, std::string& cpMsg) {
    const std::string key(cpKeyWord);
    WRITE_TRACE(2, "+++ DB_CONVERT_DATE_TIME  key=%s  msg=%s", key.c_str(),
                cpMsg.c_str());
    const std::string value = cpMsg.substr(0, kDateValueMax);
    if (key == "DATE") {
        cpDB_DATE(value, cpMsg);
    } else if (key == "DATE_RAVIK") {
        cpDB_DATE_RAVIK(value, cpMsg);
    } else if (key == "DATE_TIME_RAVIK") {
        cpDB_DATE_TIME_RAVIK(value, cpMsg);
    } else if (key == "MAX") {
        cpDB_MAX_COL_NAME(value, cpMsg);
    } else {
        cpMsg = "wrong function-argument: " + key;
        WRITE_TRACE(2, "--- DB_CONVERT_DATE_TIME returns 0 msg=%s", cpMsg.c_str());
        protocol_wrong_argument(key);
        return false;
    }
    WRITE_TRACE(2, "--- DB_CONVERT_DATE_TIME  returns 1  msg=%s", cpMsg.c_str());
    return true;
}

}  // namespace rv
