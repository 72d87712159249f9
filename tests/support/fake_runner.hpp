// A child runner for tests: records every shell line it is asked to run and
// answers from a script instead of starting a process. Installed for its
// lifetime.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "sys/runner.hpp"

namespace rvtest {

class FakeRunner : public rv::ChildRunner {
  public:
    // How a matching run ends: the exit code, the lines of standard output it
    // hands over, an effect on the world (files a real child would write),
    // and how often the command's on_tick is called between the effect and
    // the lines.
    struct Answer {
        int exit_code = 0;
        std::vector<std::string> lines;
        std::function<void(const std::string& shell_line)> effect;
        rv::ChildEnd::How how = rv::ChildEnd::How::finished;
        int ticks = 0;
    };

    FakeRunner() { rv::set_child_runner(this); }
    ~FakeRunner() override { rv::set_child_runner(nullptr); }
    FakeRunner(const FakeRunner&) = delete;
    FakeRunner& operator=(const FakeRunner&) = delete;

    // Runs whose shell line contains `part` end as `answer` says (the first
    // registered match wins); other runs end with exit code 0.
    void on(std::string part, Answer answer) { answers_.emplace_back(std::move(part), std::move(answer)); }

    rv::ChildEnd run(const rv::ChildCommand& command) override {
        ran.push_back(command.shell_line);
        Answer answer;
        for (const auto& [part, a] : answers_) {
            if (command.shell_line.find(part) != std::string::npos) {
                answer = a;
                break;
            }
        }
        if (answer.effect) {
            answer.effect(command.shell_line);
        }
        for (int i = 0; i < answer.ticks && command.on_tick; ++i) {
            command.on_tick();
        }
        for (const std::string& line : answer.lines) {
            if (command.on_line) {
                command.on_line(line + "\n");
            }
        }
        rv::ChildEnd end;
        end.how = answer.how;
        end.status = answer.exit_code << 8;
        return end;
    }

    // Shell lines in the order they were run.
    std::vector<std::string> ran;

  private:
    std::vector<std::pair<std::string, Answer>> answers_;
};

}  // namespace rvtest
