#include <QApplication>
#include <QDropEvent>
#include <QHeaderView>
#include <QLabel>
#include <QMimeData>
#include <QTest>
#include <QToolButton>
#include <atomic>
#include <numeric>
#include <thread>

#include <gtest/gtest.h>

#include "VkPanelTestSupport.h"
#include "fakes/VkTempDir.h"
#include "panel/VkBaseImageUtil.h"
#include "panel/VkCenterTextCell.h"
#include "panel/VkOpenPanel.h"
#include "panel/VkQtMainQueue.h"
#include "panel/VkQtPanelView.h"
#include "panel/VkTrojanDragView.h"
#include "panel/VkTrojanOutlineView.h"

namespace {

TEST(VkQtMainQueueTest, WorkFromAnyThreadRunsOnTheMainThreadInOrder) {
    VkQtMainQueue queue;
    std::vector<int> order;
    std::atomic<bool> offMain{false};
    std::thread worker([&] {
        offMain = !queue.isMainThread();
        for (int i = 0; i < 5; ++i)
            queue.async([&order, i, &queue] {
                EXPECT_TRUE(queue.isMainThread());
                order.push_back(i);
            });
    });
    worker.join();
    EXPECT_TRUE(offMain);
    EXPECT_TRUE(queue.isMainThread());
    EXPECT_TRUE(order.empty());  // nothing runs before the loop serves it
    ASSERT_TRUE(serveUntil([&] { return order.size() == 5; }));
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST(VkQtMainQueueTest, TimersFireUntilInvalidatedFromAWorkerOrOnceForAOneShot) {
    VkQtMainQueue queue;
    int ticks = 0, once = 0;
    auto timer = queue.scheduledTimer(0.001, true, [&] { ++ticks; });
    auto single = queue.scheduledTimer(0.001, false, [&] { ++once; });
    ASSERT_TRUE(serveUntil([&] { return ticks >= 3 && once == 1; }));
    std::thread([&] { timer->invalidate(); }).join();
    EXPECT_FALSE(timer->isValid());
    EXPECT_FALSE(single->isValid());
    int stoppedAt = ticks;
    bool later = false;
    queue.asyncAfter(0.02, [&] { later = true; });
    ASSERT_TRUE(serveUntil([&] { return later; }));
    EXPECT_EQ(ticks, stoppedAt);
    EXPECT_EQ(once, 1);
}

// A named control of a window.
template <typename T>
T* named(QWidget* parent, const char* name, QRect geometry) {
    auto* control = new T(parent);
    control->setObjectName(name);
    control->setGeometry(geometry);
    return control;
}

// A window with named controls in a 400 x 300 top view. (Other screens found by their
// interface names, hidden controls and states: the panel's flow and look tests.)
class VkQtPanelViewTest : public ::testing::Test {
  protected:
    void SetUp() override { root.resize(400, 300); }

    QWidget root;
    QWidget* box = named<QWidget>(&root, "box", {10, 20, 100, 50});
    QLabel* label = named<QLabel>(box, "label", {5, 5, 80, 20});
    VkQtPanelView view{&root, std::make_shared<VkQtScreens>("")};
};

TEST_F(VkQtPanelViewTest, FramesCountFromTheBottomLeftAndStyledCountsHighlight) {
    // Top-left (10, 20) of 50 high in a 300 high parent is 230 up from the bottom.
    EXPECT_EQ(view.frame("box"), (VkRect{{10, 230}, {100, 50}}));
    view.setFrame("label", {{5, 0}, {90, 10}});
    EXPECT_EQ(label->geometry(), QRect(5, 40, 90, 10));
    view.setHidden("label", true);
    view.removeFromSuperview("box");
    EXPECT_FALSE(view.isSubview("view", "box"));
    EXPECT_EQ(view.frame("box"), (VkRect{{10, 230}, {100, 50}}));
    // Still found by name while off screen, and placed while there.
    view.setOrigin("box", {20, 0});
    view.addSubview("view", "box");
    EXPECT_TRUE(view.isSubview("view", "box"));
    EXPECT_EQ(box->geometry(), QRect(20, 250, 100, 50));
    EXPECT_FALSE(box->isHidden());
    EXPECT_TRUE(view.isHidden("label"));

    VkStyledText styled;
    styled.text = "3 threats";
    styled.highlightLength = 1;
    styled.highlightColor = VkColor::rgb255(1, 183, 1);
    view.setStyledText("label", styled);
    EXPECT_EQ(view.text("label"), "3 threats");
    EXPECT_TRUE(label->text().contains("rgba(1,183,1,1)>3<") ||
                label->text().contains("rgba(1,183,1,1)\">3</span>"))
        << label->text().toStdString();
    styled.fontSize = 12;
    EXPECT_GT(view.drawnWidth(styled), 0);
}

// Whether the sort arrow a header draws in a section points up: the rows of pixels that
// differ from the header without the arrow are wider in its lower half.
bool headerArrowPointsUp(QHeaderView* header, int section) {
    QImage image = header->grab().toImage();
    bool shown = header->isSortIndicatorShown();
    header->setSortIndicatorShown(false);
    QImage plain = header->grab().toImage();
    header->setSortIndicatorShown(shown);
    int left = header->sectionViewportPosition(section);
    std::vector<long> widths;  // from the first row drawn to the last
    for (int y = 0; y < image.height(); ++y) {
        long width = 0;
        for (int x = left; x < left + header->sectionSize(section); ++x)
            width += image.pixel(x, y) != plain.pixel(x, y);
        if (width || !widths.empty())
            widths.push_back(width);
    }
    while (!widths.empty() && widths.back() == 0)
        widths.pop_back();
    EXPECT_GT(widths.size(), 1u) << "no arrow drawn";
    auto middle = widths.begin() + static_cast<long>(widths.size() / 2);
    return std::accumulate(middle, widths.end(), 0L) > std::accumulate(widths.begin(), middle, 0L);
}

TEST(VkQtSortIndicatorTest, NamesShowTheirPictureInFusionAndInWindowsStyle) {
    for (const char* styleName : {"Windows", "Fusion"}) {
        // The application's style, which the application owns; Fusion is left in place.
        QApplication::setStyle(styleName);
        VkQtOutlineView outline;
        outline.setColumns({"a", "b"}, {"A", "B"});
        outline.resize(300, 200);
        outline.setSortIndicator("b", std::string("NSAscendingSortIndicator"));
        EXPECT_TRUE(headerArrowPointsUp(outline.header(), 1)) << styleName;
        EXPECT_EQ(outline.sortIndicator("b"), "NSAscendingSortIndicator");
        outline.setSortIndicator("b", std::string("NSDescendingSortIndicator"));
        EXPECT_FALSE(headerArrowPointsUp(outline.header(), 1)) << styleName;
        outline.setSortIndicator("b", std::nullopt);
        EXPECT_EQ(outline.sortIndicator("b"), std::nullopt);
    }
}

// An outline of three rows with the two row buttons.
class VkTrojanOutlineViewTest : public ::testing::Test {
  protected:
    void SetUp() override {
        outline.setColumns({"torjanNameColumn", "fileNameColumn"}, {"Threat", "File"});
        outline.rowModel()->setSource({[this] { return rows; },
                                       [](const std::string&, int64_t row) {
                                           return std::optional<std::string>(std::to_string(row));
                                       },
                                       {}});
        one->resize(16, 16);
        two->resize(16, 16);
        outline.setMoveButtons(one, two);
        outline.resize(300, 200);
        outline.show();
    }

    // Each button's row tag and whether it is shown.
    std::tuple<int, bool, int, bool> buttons() const {
        return {VkTrojanOutlineView::tag(one), !one->isHidden(), VkTrojanOutlineView::tag(two),
                !two->isHidden()};
    }

    VkTrojanOutlineView outline;
    QToolButton* one = new QToolButton;
    QToolButton* two = new QToolButton;
    int64_t rows = 3;
};

TEST_F(VkTrojanOutlineViewTest, ButtonsFollowThePointerOrTheSelectionAndHideOffRows) {
    QRect second = outline.visualRect(outline.model()->index(1, 0));
    outline.mouseMoved(second.center());
    EXPECT_EQ(buttons(), std::tuple(1, true, 1, true));
    int y = second.y() + (second.height() - 16) / 2;
    EXPECT_EQ(std::pair(one->pos(), two->pos()), std::pair(QPoint(2, y), QPoint(20, y)));
    outline.reloadData();
    EXPECT_EQ(buttons(), std::tuple(-1, false, -1, false));

    outline.mouseMoved(second.center());
    ASSERT_FALSE(one->isHidden());
    outline.mouseMoved(QPoint(5, 190));  // below the last row
    EXPECT_EQ(buttons(), std::tuple(-1, false, -1, false));

    // A selected row places the second button twice over at the right end; the first button
    // is not touched.
    outline.selectionModel()->select(
        outline.model()->index(2, 0),
        QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
    outline.checkSelectedProcess();
    QRect third = outline.visualRect(outline.model()->index(2, 0));
    int x = outline.viewport()->width() - 16 - 5 + 18;
    EXPECT_EQ(two->pos(), QPoint(x, third.y() + (third.height() - 16) / 2));
    EXPECT_EQ(buttons(), std::tuple(-1, false, 2, true));
    outline.selectionModel()->clearSelection();
    outline.checkSelectedProcess();
    EXPECT_EQ(buttons(), std::tuple(-1, false, -1, false));
}

TEST(VkCenterTextCellTest, TextAtNaturalSizeLeftAlignedAndCentredVertically) {
    QRectF rect = VkCenterTextCell::titleRectForBounds(QRectF(10.25, 4, 200, 30), QSizeF(50, 14));
    EXPECT_EQ(rect, QRectF(10.25, 12, 50, 14));
}

// A drop view 300 x 200 whose delegate and picker are recorded.
class VkTrojanDragViewTest : public ::testing::Test {
  protected:
    void SetUp() override {
        drop.resize(300, 200);
        drop.awakeFromNib("", "Scan");
        drop.setTrojanDragDelegate(
            [this](const std::vector<std::string>& paths) { calls.push_back(paths); });
        drop.setFilePicker([this](QWidget*, const QString& prompt) {
            prompts.push_back(prompt);
            return picked;
        });
        drop.show();
    }

    // Drags a file manager's paths over the view, then drops them or leaves again.
    void drag(const QList<QUrl>& urls, bool andDrop) {
        QMimeData data;
        data.setUrls(urls);
        QDragEnterEvent enter(QPoint(150, 100), Qt::CopyAction, &data, Qt::LeftButton,
                              Qt::NoModifier);
        QApplication::sendEvent(&drop, &enter);
        EXPECT_TRUE(enter.isAccepted());
        EXPECT_TRUE(drop.isAnimating());
        QDropEvent dropped(QPointF(150, 100), Qt::CopyAction, &data, Qt::LeftButton,
                           Qt::NoModifier);
        QDragLeaveEvent leave;
        QApplication::sendEvent(&drop, andDrop ? static_cast<QEvent*>(&dropped) : &leave);
    }

    using Calls = std::vector<std::vector<std::string>>;
    VkTrojanDragView drop;
    Calls calls;
    std::vector<QString> prompts;
    std::optional<std::string> picked;
};

TEST_F(VkTrojanDragViewTest, ADropTellsTheDelegateOnceInOrderAndADragLeavingNothing) {
    QPoint rest = drop.anchorImageView()->pos();
    EXPECT_EQ(rest.x(), (300 - drop.anchorImageView()->width()) / 2);
    drag({QUrl::fromLocalFile("/tmp/x")}, false);
    EXPECT_FALSE(drop.isAnimating());
    EXPECT_EQ(drop.anchorImageView()->pos(), rest);
    EXPECT_FALSE(drop.anchorImageView()->isHidden());
    EXPECT_TRUE(calls.empty());

    drag({QUrl::fromLocalFile("/tmp/b"), QUrl::fromLocalFile("/tmp/a dir"),
          QUrl::fromLocalFile("/tmp/c")},
         true);
    EXPECT_EQ(calls, (Calls{{"/tmp/b", "/tmp/a dir", "/tmp/c"}}));
    EXPECT_TRUE(drop.anchorImageView()->isHidden());
    EXPECT_FALSE(drop.isAnimating());
    // Shown again by its owner, the anchor comes back with the view.
    drop.hide();
    drop.show();
    EXPECT_FALSE(drop.anchorImageView()->isHidden());
}

TEST_F(VkTrojanDragViewTest, ClickInsideTheMarginsPicksOnePathAndInTheMarginNothing) {
    picked = "/tmp/picked";
    QTest::mouseClick(&drop, Qt::LeftButton, Qt::NoModifier, QPoint(20, 100));  // left margin
    QTest::mouseClick(&drop, Qt::LeftButton, Qt::NoModifier, QPoint(150, 10));  // top margin
    EXPECT_TRUE(prompts.empty() && calls.empty());
    QTest::mouseClick(&drop, Qt::LeftButton, Qt::NoModifier, QPoint(31, 16));
    EXPECT_EQ(prompts, std::vector<QString>{"Scan"});
    EXPECT_EQ(calls, Calls{{"/tmp/picked"}});
    // Cancelling the picker calls nothing.
    picked.reset();
    QTest::mouseClick(&drop, Qt::LeftButton, Qt::NoModifier, QPoint(150, 100));
    EXPECT_EQ(prompts, (std::vector<QString>{"Scan", "Scan"}));
    EXPECT_EQ(calls, Calls{{"/tmp/picked"}});
}

TEST(VkBaseImageUtilTest, ButtonFaceHasTheSizeAndCarriesItsTitle) {
    QPixmap titled = VkBaseImageUtil::baseButtonImage(1, QSize(110, 30), "Done");
    QPixmap plain = VkBaseImageUtil::baseButtonImage(1, QSize(110, 30), "");
    EXPECT_EQ(titled.deviceIndependentSize().toSize(), QSize(110, 30));
    EXPECT_NE(titled.toImage(), plain.toImage());
    EXPECT_TRUE(VkBaseImageUtil::baseButtonImage(1, QSize(), "Done").isNull());
}

// The accept button takes a folder as well as a file (Qt's dialog would walk into the
// folder), nothing typed takes the folder shown, and a typed path that is not there is said.
TEST(VkOpenPanelTest, AcceptTakesAFileOrAFolderAndSaysWhenThePathIsMissing) {
    VkTempDir dir;
    dir.write("sub/inner.txt", "x");
    dir.write("file.txt", "x");
    struct Case {
        const char* typed;
        std::string chosen;  // "" when the panel stays open
    };
    for (const Case& c : {Case{"sub", dir / "sub"}, Case{"file.txt", dir / "file.txt"},
                          Case{"", dir.path()}, Case{"not-here", ""}}) {
        SCOPED_TRACE(c.typed);
        VkOpenPanel panel(nullptr, "Scan", "Not there");
        panel.setDirectory(QString::fromStdString(dir.path()));
        panel.selectFile(c.typed);
        panel.show();
        panel.accept();
        EXPECT_EQ(panel.result() == QDialog::Accepted, !c.chosen.empty());
        EXPECT_EQ(panel.isVisible(), c.chosen.empty());
        EXPECT_EQ(panel.chosenPath().toStdString(), c.chosen);
        EXPECT_EQ(panel.missingPathLabel()->isVisible(), c.chosen.empty());
        EXPECT_EQ(panel.missingPathLabel()->text(), "Not there");
    }
}

}  // namespace
