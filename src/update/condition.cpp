#include "update/condition.hpp"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>

#include "config/glbv.hpp"
#include "config/product.hpp"
#include "sys/strings.hpp"

namespace rv {

namespace {

bool equals_nocase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i]))) {
            return false;
        }
    }
    return true;
}

// Replaces a word that is exactly `name` by the quoted `version`.
void substitute(std::string& word, std::string_view name, const std::string& version) {
    if (word == name) {
        word = "\"" + version + "\"";
    }
}

}  // namespace

bool iCondition(std::string& szCondition) {
    const GlbvResult type = glbv_read("gv_db_type");
    const std::string dbType = type.found() ? type.text : std::string();

    // At most three words, split at single blanks: two blanks in a row make
    // an empty word; a fourth and later words are ignored.
    std::vector<std::string> words = split(szCondition, ' ', EmptyFields::keep);
    words.resize(3);
    std::string& first = words[0];
    const std::string& op = words[1];
    std::string& second = words[2];

    if (op.empty()) {
        return equals_nocase(first, dbType);
    }
    substitute(first, "$old_version", pathes.version_old);
    substitute(second, "$old_version", pathes.version_old);
    substitute(first, "$new_version", pathes.version);
    substitute(second, "$new_version", pathes.version);

    // Leaving out the last character of the shorter argument (its closing
    // quote) lets a release prefix match every build of that release. An
    // empty argument makes the length "minus one": the whole texts compare.
    const std::size_t shorter = std::min(first.size(), second.size());
    const std::size_t length = shorter == 0 ? std::string::npos : shorter - 1;
    const int cmp = std::strncmp(first.c_str(), second.c_str(), length);

    szCondition = "[ " + first + " " + op + " " + second + " ]";

    if (cmp == 0) {
        return op.find('=') != std::string::npos;
    }
    if (cmp < 0) {
        return op.find('<') != std::string::npos;
    }
    return op.find('>') != std::string::npos;
}

std::vector<std::string> condition_faults(const std::string& condition) {
    const std::string shown = "[ " + condition + " ]";
    if (condition.find("  ") != std::string::npos || condition.find('\t') != std::string::npos) {
        return {"two blanks or a tab in the condition " + shown +
                ": its words are not found, it tests the database type"};
    }
    const std::vector<std::string> words = split(condition, ' ', EmptyFields::keep);
    if (words.size() == 1) {
        if (words[0].empty() || words[0].find_first_of("$\"=<>") != std::string::npos) {
            return {"condition " + shown + " is one word: it tests the database type"};
        }
        return {};
    }
    if (words.size() == 2) {
        return {"condition " + shown + " of two words: an argument is missing"};
    }
    std::vector<std::string> faults;
    if (words.size() > 3) {
        faults.push_back("condition " + shown + " of " + std::to_string(words.size()) +
                         " words: the words behind the third are ignored");
    }
    for (const std::string& arg : {words[0], words[2]}) {
        const bool quoted = arg.size() >= 2 && arg.front() == '"' && arg.back() == '"';
        if (arg != "$old_version" && arg != "$new_version" && !quoted) {
            faults.push_back("unquoted literal " + arg + " in the condition: releases compare in double quotes");
        }
    }
    if (words[1].find_first_of("=<>") == std::string::npos) {
        faults.push_back("operator " + words[1] + " holds none of =, < and >: the condition never holds");
    }
    return faults;
}

std::size_t get_string(std::string_view iS, std::string& oS, std::size_t begin, char sep) {
    if (begin >= iS.size()) {
        oS.clear();
        return begin + 1;
    }
    const auto end = sep == '\0' ? std::string_view::npos : iS.find(sep, begin);
    if (end == std::string_view::npos) {
        oS = std::string(iS.substr(begin));
        str_trim(oS);
        return iS.size() + 1;
    }
    oS = std::string(iS.substr(begin, end - begin));
    str_trim(oS);
    return end + 1;
}

void print_condition_format_help(std::string_view line) {
    std::printf("WARNING: condition line in illegal format!\n");
    std::printf(">>>%.*s<<<\n", static_cast<int>(line.size()), line.data());
    std::printf("format required: [ {argument} {operator} {argument} ] && {keyword} {command}\n");
    std::printf(" argument: \n");
    std::printf("     $old_version  >>  current version\n");
    std::printf("     $new_version  >>  update version\n");
    std::printf("     \"{string}\"\n");
    std::printf(" operator:  < | > | <= | >= | == | <>\n");
    std::printf(" keyword:   change | cmd | dump | export | exit | import | rmdir | sql | skip | update\n");
    std::printf(" command:   any valid command for given keyword\n");
    std::fflush(stdout);
}

}  // namespace rv
