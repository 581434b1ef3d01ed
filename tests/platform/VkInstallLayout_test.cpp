#include "platform/VkInstallLayout.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "fakes/VkTempDir.h"

namespace {

// A tree holding an install (bin/ beside share/ and lib/), a build tree's files, and maybe
// the build tree's marker; the program runs from bin/ when installed, else from two folders
// down.
TEST(VkInstallLayoutTest, InstalledFilesFirstTheBuildTreeOnlyWithItsMarker) {
    enum Found { installed, buildTree, configured };
    const struct {
        bool installed;
        bool marker;
        Found found;
    } cases[] = {
        // An install with a build tree's marker above it still uses its own files.
        {true, true, installed},
        {false, true, buildTree},
        // Without the marker, a "resources" folder nearby is never taken.
        {false, false, configured},
    };
    const std::string library = VK_LAYOUT_PANEL_LIBRARY_NAME;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.found);
        VkTempDir tree;
        auto normal = [&](const std::string& fromBin) {
            return std::filesystem::path(tree / ("bin/" + fromBin)).lexically_normal().string();
        };
        const std::string installedData = normal(VK_LAYOUT_DATA_FROM_BIN);
        const std::string installedLibrary = normal(VK_LAYOUT_PKGLIB_FROM_BIN "/" + library);
        tree.mkdir("bin");
        tree.mkdir("apps/host");
        if (c.installed) {
            std::filesystem::create_directories(installedData);
            tree.write(installedLibrary.substr(tree.path().size() + 1), "");
        }
        tree.mkdir("resources");
        tree.write("src/panel/" + library, "");
        if (c.marker)
            tree.write(VK_LAYOUT_BUILD_TREE_MARKER, "");

        // Resource folder and panel library, as found.
        const std::pair<std::string, std::string> expected[] = {
            {installedData, installedLibrary},
            {tree / "resources", tree / ("src/panel/" + library)},
            {VK_LAYOUT_DATADIR, std::string(VK_LAYOUT_PKGLIBDIR) + "/" + library}};
        VkInstallLayout layout(tree / (c.installed ? "bin" : "apps/host"));
        EXPECT_EQ(std::pair(layout.resourceFolder(), layout.panelLibrary()), expected[c.found]);
        EXPECT_EQ(layout.buildTree(), c.marker ? tree.path() : std::string());
    }
}

}  // namespace
