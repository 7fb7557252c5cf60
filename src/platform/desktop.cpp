#include "platform/desktop.h"

namespace tervain {

void Desktop::copyAttributeValues(const std::vector<ElementRef>& elements,
                                  const std::vector<std::string>& attributes,
                                  std::vector<std::vector<std::pair<AXResult, AXValue>>>& out,
                                  std::vector<std::pair<AXResult, AXValue>>* actionNames) {
  out.assign(elements.size(), {});
  if (actionNames) actionNames->assign(elements.size(), {AXError::illegalArgument, AXValue{}});
  for (std::size_t i = 0; i < elements.size(); ++i) {
    out[i].resize(attributes.size(), {AXError::illegalArgument, AXValue{}});
    if (!elements[i]) continue;
    for (std::size_t j = 0; j < attributes.size(); ++j) {
      out[i][j].first = copyAttributeValue(*elements[i], attributes[j], out[i][j].second);
    }
    if (actionNames) {
      (*actionNames)[i].first = copyActionNames(*elements[i], (*actionNames)[i].second);
    }
  }
}

}  // namespace tervain
