// Base fixture of the unit tests that touch the product's state: a sandbox
// with its protocol file, the trace off, and the message
// language and trace state reset around every test.
#pragma once

#include <gtest/gtest.h>

#include "config/log_setup.hpp"
#include "log/prot.hpp"
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
        rv::install_product_services();
    }

    Sandbox box;
    std::string prot = box.use_protocol();
};

}  // namespace rvtest
