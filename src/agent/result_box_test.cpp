#include "agent/result_box.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>

namespace tervain {
namespace {

using namespace std::chrono_literals;

TEST(ResultBoxTest, AValueFromAnotherThreadWakesTheWaiter) {
  auto box = std::make_shared<ResultBox<std::string>>();
  std::thread worker([box] { box->put("done"); });
  EXPECT_EQ(box->waitFor(10s), "done");
  worker.join();
}

TEST(ResultBoxTest, AValuePutBeforeTheWaitIsTakenAtOnce) {
  ResultBox<int> box;
  box.put(1);
  box.put(2);  // the first value is the result
  EXPECT_EQ(box.waitFor(0s), 1);
}

TEST(ResultBoxTest, AWaiterThatGivesUpLeavesTheBoxToTheWorker) {
  auto box = std::make_shared<ResultBox<std::string>>();
  EXPECT_EQ(box->waitFor(1ms), std::nullopt);
  std::weak_ptr<ResultBox<std::string>> watch = box;
  std::thread worker([late = std::move(box)] { late->put("nobody reads this"); });
  worker.join();
  EXPECT_TRUE(watch.expired()) << "the last holder freed it";
}

}  // namespace
}  // namespace tervain
