// The output lines of the loader: Error lines and the summary.
#include "loader/outcome.hpp"

namespace rv {

void Outcome::report(const Statement& statement, const std::string& message) {
    ++failed_;
    std::fprintf(out_, "Error in line %zu: %s", statement.line, message.c_str());
    if (echo_statement_) {
        std::fprintf(out_, " | statement: %s", statement.text.c_str());
    }
    std::fputc('\n', out_);
}

void print_summary(std::FILE* out, std::size_t succeeded, std::size_t failed, bool stopped) {
    std::fprintf(out, "oaisql: %zu statements, %zu succeeded, %zu failed%s\n", succeeded + failed,
                 succeeded, failed, stopped ? ", stopped" : "");
    std::fflush(out);
}

}  // namespace rv
