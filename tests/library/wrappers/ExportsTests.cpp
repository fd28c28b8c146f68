#include <dlfcn.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include "Miravel/Miravel.h"

namespace {

// The names the library may export: its factories and its property key.
const std::set<std::string> kAllowed = {"createBsAudioWaveExtractWrapper", "createBsVideoFrameExtractWrapper",
                                        "createBsClipThumbnaiService", "createThumbManager",
                                        "ZOR::ClipThumbnailKey::enableCalcDucking"};

std::set<std::string> definedDynamicSymbols(const std::string& library) {
    const std::string command = "nm -D --defined-only --demangle '" + library + "'";
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    std::set<std::string> names;
    if (!pipe) return names;
    std::array<char, 1024> line{};
    while (std::fgets(line.data(), static_cast<int>(line.size()), pipe.get()) != nullptr) {
        std::istringstream fields(line.data());
        std::string address, type, name;
        fields >> address >> type;
        std::getline(fields >> std::ws, name);
        if (!name.empty()) names.insert(name);
    }
    return names;
}

TEST(Exports, LibraryExportsOnlyFactoriesAndTheKey) {
    const std::set<std::string> names = definedDynamicSymbols(MIRAVEL_LIBRARY_PATH);
    ASSERT_FALSE(names.empty()) << "nm found no symbols in " << MIRAVEL_LIBRARY_PATH;
    for (const std::string& name : names) EXPECT_TRUE(kAllowed.count(name)) << "unexpected export: " << name;
    EXPECT_TRUE(names.count("ZOR::ClipThumbnailKey::enableCalcDucking"));
}

TEST(Exports, EnableCalcDuckingKeyIsTheTextEnableCalcDucking) {
    EXPECT_STREQ(ZOR::ClipThumbnailKey::enableCalcDucking, "enableCalcDucking");
}

TEST(Exports, KeyIsReachableByNameThroughTheDynamicLoader) {
    void* library = dlopen(MIRAVEL_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    auto* key = static_cast<const char* const*>(dlsym(library, "_ZN3ZOR16ClipThumbnailKey17enableCalcDuckingE"));
    ASSERT_NE(key, nullptr) << dlerror();
    EXPECT_STREQ(*key, "enableCalcDucking");
    dlclose(library);
}

}  // namespace
