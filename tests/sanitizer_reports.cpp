// In the test suite, a sanitizer report from an agent under test fails the test that started it,
// whether or not the report ended the agent.
#include <gtest/gtest.h>

#include "agent_process.h"

namespace tervain::testing {
namespace {

const bool installed = [] {
  AgentProcess::onSanitizerReport() = [](std::string_view marker, const std::string& log) {
    ADD_FAILURE() << "the agent reported \"" << marker << "\":\n" << log;
  };
  return true;
}();

}  // namespace
}  // namespace tervain::testing
