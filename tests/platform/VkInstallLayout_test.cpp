#include <gtest/gtest.h>

#include <filesystem>

#include "fakes/VkTempDir.h"
#include "platform/VkInstallLayout.h"

namespace {

enum class Found { installed, buildTree, configured };

// A tree holding an install (bin/ beside share/ and lib/), a build tree's files, and maybe
// the build tree's marker; the program runs from bin/ or from two folders down.
struct LayoutCase {
    const char* name;
    bool installed;
    bool marker;
    const char* programFolder;
    Found found;
};

class VkInstallLayoutTest : public ::testing::TestWithParam<LayoutCase> {};

TEST_P(VkInstallLayoutTest, InstalledFilesFirstTheBuildTreeOnlyWithItsMarker) {
    const LayoutCase& c = GetParam();
    VkTempDir tree;
    const std::string library = VK_LAYOUT_PANEL_LIBRARY_NAME;
    const std::string bin = tree.mkdir("bin");
    tree.mkdir("apps/host");
    auto normal = [](const std::string& path) {
        return std::filesystem::path(path).lexically_normal().string();
    };
    const std::string installedData = normal(bin + "/" + VK_LAYOUT_DATA_FROM_BIN);
    const std::string installedLibrary =
        normal(bin + "/" + VK_LAYOUT_PKGLIB_FROM_BIN + "/" + library);
    if (c.installed) {
        std::filesystem::create_directories(installedData);
        std::filesystem::create_directories(std::filesystem::path(installedLibrary).parent_path());
        tree.write(installedLibrary.substr(tree.path().size() + 1), "");
    }
    tree.mkdir("resources");
    tree.write("src/panel/" + library, "");
    if (c.marker)
        tree.write(VK_LAYOUT_BUILD_TREE_MARKER, "");

    VkInstallLayout layout(tree / c.programFolder);
    switch (c.found) {
        case Found::installed:
            EXPECT_EQ(layout.resourceFolder(), installedData);
            EXPECT_EQ(layout.panelLibrary(), installedLibrary);
            break;
        case Found::buildTree:
            EXPECT_EQ(layout.resourceFolder(), tree / "resources");
            EXPECT_EQ(layout.panelLibrary(), tree / ("src/panel/" + library));
            break;
        case Found::configured:
            EXPECT_EQ(layout.resourceFolder(), VK_LAYOUT_DATADIR);
            EXPECT_EQ(layout.panelLibrary(), std::string(VK_LAYOUT_PKGLIBDIR) + "/" + library);
            break;
    }
    EXPECT_EQ(layout.buildTree(), c.marker ? tree.path() : std::string());
}

INSTANTIATE_TEST_SUITE_P(
    Trees, VkInstallLayoutTest,
    ::testing::Values(
        // An install with a build tree's marker above it still uses its own files.
        LayoutCase{"installedFirst", true, true, "bin", Found::installed},
        LayoutCase{"buildTree", false, true, "apps/host", Found::buildTree},
        // Without the marker, a "resources" folder nearby is never taken.
        LayoutCase{"noMarker", false, false, "apps/host", Found::configured}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
