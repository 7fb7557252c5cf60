// The page of `tervainctl view`, compiled into the program (see cmake/embed_assets.cmake).
#pragma once

#include <cstddef>

namespace tervain::view {

struct Asset {
  const char* path;  // "/index.html"
  const char* contentType;
  const char* body;
};

extern const Asset kAssets[];
extern const std::size_t kAssetCount;

}  // namespace tervain::view
