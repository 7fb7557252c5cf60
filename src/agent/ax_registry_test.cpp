#include "agent/ax_registry.h"

#include <gtest/gtest.h>

#include <memory>

#include "fake_desktop.h"

namespace tervain {
namespace {

class AXRegistryTest : public ::testing::Test {
 protected:
  testing::FakeDesktop desktop;
  AXRegistry registry;
};

TEST_F(AXRegistryTest, RefsNumberFromOneAndNameTheirElements) {
  const ElementRef a = desktop.addElement({});
  const ElementRef b = desktop.addElement({});
  EXPECT_EQ(registry.registerElement(a), "e1");
  EXPECT_EQ(registry.registerElement(b), "e2");
  EXPECT_EQ(registry.registerElement(a), "e3");  // the same element again: a new ref
  EXPECT_EQ(registry["e1"], a);
  EXPECT_EQ(registry["e2"], b);
  EXPECT_EQ(registry["e3"], a);
}

TEST_F(AXRegistryTest, LookupIsAnExactMatch) {
  registry.registerElement(desktop.addElement({}));
  for (const char* ref : {"E1", "e01", " e1", "e1 ", "1", "e", "", "e2"}) {
    EXPECT_EQ(registry[ref], nullptr) << ref;
  }
}

TEST_F(AXRegistryTest, ResetForgetsRefsButNeverReusesANumber) {
  const ElementRef a = desktop.addElement({});
  for (int i = 0; i < 57; ++i) registry.registerElement(a);
  registry.reset();
  EXPECT_EQ(registry["e1"], nullptr);
  EXPECT_EQ(registry["e57"], nullptr);
  EXPECT_EQ(registry.registerElement(a), "e58");
  EXPECT_EQ(registry["e58"], a);
}

TEST_F(AXRegistryTest, HoldsItsElementsUntilResetOrDestroyed) {
  std::weak_ptr<const Element> watched;
  {
    AXRegistry scoped;
    ElementRef element = desktop.addElement({});
    watched = element;
    scoped.registerElement(std::move(element));
    EXPECT_FALSE(watched.expired());
  }
  EXPECT_TRUE(watched.expired());

  ElementRef element = desktop.addElement({});
  watched = element;
  registry.registerElement(std::move(element));
  registry.registerElement(watched.lock());
  EXPECT_EQ(desktop.liveElements(), 1);
  registry.reset();
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(desktop.liveElements(), 0);
}

}  // namespace
}  // namespace tervain
