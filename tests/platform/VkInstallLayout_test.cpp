#include "platform/VkInstallLayout.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "fakes/VkTempDir.h"

namespace {

enum class Found { installed, buildTree, configured };

// A tree holding an install (bin/ beside share/ and lib/), a build tree's files, and maybe
// the build tree's marker; the program runs from bin/ or from two folders down.
TEST(VkInstallLayoutTest, InstalledFilesFirstTheBuildTreeOnlyWithItsMarker) {
    const struct {
        const char* name;
        bool installed;
        bool marker;
        const char* programFolder;
        Found found;
    } cases[] = {
        // An install with a build tree's marker above it still uses its own files.
        {"installedFirst", true, true, "bin", Found::installed},
        {"buildTree", false, true, "apps/host", Found::buildTree},
        // Without the marker, a "resources" folder nearby is never taken.
        {"noMarker", false, false, "apps/host", Found::configured},
    };
    const std::string library = VK_LAYOUT_PANEL_LIBRARY_NAME;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        VkTempDir tree;
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
        VkInstallLayout layout(tree / c.programFolder);
        EXPECT_EQ(std::pair(layout.resourceFolder(), layout.panelLibrary()),
                  expected[static_cast<int>(c.found)]);
        EXPECT_EQ(layout.buildTree(), c.marker ? tree.path() : std::string());
    }
}

}  // namespace
