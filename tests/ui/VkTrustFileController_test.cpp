#include "ui/VkTrustFileController.h"

#include <gtest/gtest.h>

#include "VkUiTestSupport.h"
#include "center/VkServices.h"
#include "center/VkTorjanCenter.h"
#include "engine/VkTorjanResultItems.h"
#include "fakes/VkRecordingListView.h"
#include "support/VkStringExtern.h"

namespace {

class VkTrustFileControllerTest : public VkUiTest {
  protected:
    void SetUp() override {
        localizer->setString("Security-1-13-1", "%d trusted files");
        // File-name order (alpha, mid, zeta) differs from trojan-name order on purpose.
        for (auto [name, trojan, size] : {std::tuple{"home/zeta.bin", "OSX/Alpha", 3},
                                          {"home/alpha.bin", "OSX/Gamma", 1},
                                          {"home/mid.bin", "OSX/Beta", 20}}) {
            auto r = std::make_shared<VkTorjanResultItems>();
            r->setPath(dir.write(name, std::string(size, 'x')));
            r->setTorjanName(std::string(trojan));
            r->setHashCode(std::string("00112233445566778899aabbccddeeff"));
            center->addTrustFile(r);
        }
        controller->setView(&view);
        controller->awakeFromNib();
        controller->reloadDataView();
    }

    Lines column(VkListColumn c) const { return vkColumn(*controller, c); }

    std::shared_ptr<VkTorjanCenter> center = std::make_shared<VkTorjanCenter>(
        ctx, VkServices::makeAntiTrojan(*ctx), VkServices::makeQuarantine(*ctx));
    std::shared_ptr<VkLocalizer> localizer = std::make_shared<VkLocalizer>();
    VkRecordingListView view;
    std::unique_ptr<VkTrustFileController> controller =
        std::make_unique<VkTrustFileController>(center, localizer);
};

// The first showing sorts by trojan name under the file-name indicator; every header but
// the check column flips one shared direction.
TEST_F(VkTrustFileControllerTest, SortsByTrojanNameAndHeadersFlipOneDirection) {
    EXPECT_EQ(view.indicatorOn(VkListColumn::fileName), "NSAscendingSortIndicator");
    EXPECT_EQ(column(VkListColumn::torjanName), (Lines{"OSX/Alpha", "OSX/Beta", "OSX/Gamma"}));
    EXPECT_EQ(column(VkListColumn::fileName), (Lines{"zeta.bin", "mid.bin", "alpha.bin"}));
    EXPECT_EQ(column(VkListColumn::fileSize),
              (Lines{stringFromFileSize(3), stringFromFileSize(20), stringFromFileSize(1)}));
    EXPECT_EQ(column(VkListColumn::check), (Lines{"-", "-", "-"}));
    EXPECT_EQ(*controller->iconPath(0), dir / "home/zeta.bin");
    EXPECT_EQ(view.texts["trustFileText"], "3 trusted files");
    EXPECT_EQ(view.reloads, 1);

    // The check column changes nothing, not even the direction (the next click descends).
    int indicatorCalls = view.indicatorCalls;
    controller->didClickTableColumn(VkListColumn::check);
    EXPECT_EQ(view.indicatorCalls, indicatorCalls);
    EXPECT_EQ(view.reloads, 1);
    EXPECT_EQ(column(VkListColumn::torjanName), (Lines{"OSX/Alpha", "OSX/Beta", "OSX/Gamma"}));

    controller->didClickTableColumn(VkListColumn::fileName);
    EXPECT_EQ(view.indicatorOn(VkListColumn::fileName), "NSDescendingSortIndicator");
    EXPECT_EQ(column(VkListColumn::fileName), (Lines{"alpha.bin", "mid.bin", "zeta.bin"}))
        << "by trojan name, not by file name";
    controller->didClickTableColumn(VkListColumn::fileSize);
    EXPECT_EQ(view.indicatorOn(VkListColumn::fileName), "");
    EXPECT_EQ(view.indicatorOn(VkListColumn::fileSize), "NSAscendingSortIndicator");
    EXPECT_EQ(column(VkListColumn::fileName), (Lines{"alpha.bin", "zeta.bin", "mid.bin"}));
    controller->didClickTableColumn(VkListColumn::torjanName);
    EXPECT_EQ(view.indicatorOn(VkListColumn::fileSize), "");
    EXPECT_EQ(view.indicatorOn(VkListColumn::torjanName), "NSDescendingSortIndicator");
    EXPECT_EQ(column(VkListColumn::torjanName), (Lines{"OSX/Gamma", "OSX/Beta", "OSX/Alpha"}));
}

TEST_F(VkTrustFileControllerTest, DropAndRevealActOnTheRightRowOrNothing) {
    controller->disFileTrust(3);
    controller->disFileTrust(-1);
    controller->realInFinder();  // nothing clicked or selected
    EXPECT_EQ(view.reloads, 1);
    EXPECT_EQ(center->ecryptTrustFileArray().size(), 3u);
    EXPECT_TRUE(view.revealed.empty());

    // Reveal takes the clicked row over the selected one.
    view.selected = 1;
    controller->realInFinder();
    view.clicked = 2;
    controller->realInFinder();
    EXPECT_EQ(view.revealed, (Lines{dir / "home/mid.bin", dir / "home/alpha.bin"}));

    controller->disFileTrust(1);  // OSX/Beta, mid.bin
    EXPECT_EQ(view.reloads, 2);
    EXPECT_EQ(view.texts["trustFileText"], "2 trusted files");
    EXPECT_EQ(column(VkListColumn::fileName), (Lines{"zeta.bin", "alpha.bin"}));
    auto stored = center->ecryptTrustFileArray();
    ASSERT_EQ(stored.size(), 2u);
    for (const auto& row : stored)
        EXPECT_NE(*row.getString("TrustFilePath"), dir / "home/mid.bin");
}

}  // namespace
