# The macOS build: the desktop adapter, its frameworks, and the executable's embedded Info.plist.
# Included from the top-level CMakeLists.txt under if(APPLE).

# The workspace and capture parts of the adapter are Objective-C++.
enable_language(OBJCXX)

set(TERVAIN_MACOS_ADAPTER_DIR ${CMAKE_CURRENT_LIST_DIR}/../src/platform/macos)
set(TERVAIN_MACOS_INFO_PLIST ${CMAKE_CURRENT_LIST_DIR}/../packaging/macos/Info.plist)

# Adds the adapter to target (the agent library) with everything it links against.
function(tervain_add_macos_adapter target)
  file(GLOB adapter_cxx CONFIGURE_DEPENDS ${TERVAIN_MACOS_ADAPTER_DIR}/*.cpp)
  file(GLOB adapter_objcxx CONFIGURE_DEPENDS ${TERVAIN_MACOS_ADAPTER_DIR}/*.mm)
  # ARC for the Objective-C++ only: the .cpp files hold CoreFoundation references by hand.
  set_source_files_properties(${adapter_objcxx} PROPERTIES COMPILE_OPTIONS "-fobjc-arc")
  target_sources(${target} PRIVATE ${adapter_cxx} ${adapter_objcxx})
  target_link_libraries(${target} PUBLIC
    "-framework ApplicationServices"
    "-framework CoreFoundation"
    "-framework CoreGraphics"
    "-framework Foundation"
    "-framework AppKit"
    "-framework ImageIO"
    "-framework ScreenCaptureKit")
endfunction()

# Embeds packaging/macos/Info.plist in the executable's __TEXT,__info_plist section: a bare
# executable has no bundle, and this is where codesign and the privacy database find its stable
# identifier.
function(tervain_embed_macos_info_plist target)
  target_link_options(${target} PRIVATE
    "LINKER:-sectcreate,__TEXT,__info_plist,${TERVAIN_MACOS_INFO_PLIST}")
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${TERVAIN_MACOS_INFO_PLIST})
endfunction()
