// Base fixture of the unit tests that touch the product's state: a sandbox
// with its protocol file, a trace context that is off, and the message
// language and trace state reset around every test.
#pragma once

#include <gtest/gtest.h>

#include "log/trace.hpp"
#include "support/sandbox.hpp"

namespace rvtest {

class ProductTest : public ::testing::Test {
  protected:
    void SetUp() override { reset(); }
    void TearDown() override { reset(); }
    static void reset() {
        rv::trace_reset();
        rv::eLang = rv::LANG_EN;
        rv::strLog = rv::str_log{};
    }

    Sandbox box;
    std::string prot = box.use_protocol();
    rv::str_log log;
};

}  // namespace rvtest
