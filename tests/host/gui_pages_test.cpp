// The desktop wizard's own pages, offscreen: photographs come in by drag and
// drop (only existing local files, each once), and the run page's settings
// hand-over is left to the end-to-end test.
#include "host/PhotoListPage.h"

#include <QApplication>
#include <QDir>
#include <QDropEvent>
#include <QFile>
#include <QMimeData>
#include <QTemporaryDir>
#include <QUrl>
#include <gtest/gtest.h>

namespace {

bool drop(QWidget* target, const QList<QUrl>& urls) {
    QMimeData data;
    data.setUrls(urls);
    const QPoint at = target->rect().center();
    QDragEnterEvent enter(at, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(target, &enter);
    if (!enter.isAccepted()) return false;
    QDropEvent dropped(at, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(target, &dropped);
    return dropped.isAccepted();
}

} // namespace

TEST(PhotoListPage, DroppedFilesJoinTheListOnceAndCompleteThePage) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    QStringList files;
    for (const char* name : {"one.jpg", "two.tif"}) {
        QFile file(dir.filePath(QString::fromLatin1(name)));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        files << file.fileName();
    }
    PhotoListPage page(nullptr, {});
    page.show();
    EXPECT_FALSE(page.isComplete());

    const struct {
        QList<QUrl> urls;
        bool accepted;
        int count;
    } cases[] = {
        {{QUrl(QStringLiteral("https://example.org/a.jpg"))}, false, 0}, // not local
        {{QUrl::fromLocalFile(dir.filePath(QStringLiteral("missing.jpg")))}, false, 0},
        {{QUrl::fromLocalFile(dir.path())}, false, 0}, // a folder
        {{QUrl::fromLocalFile(files[0])}, true, 1},
        {{QUrl::fromLocalFile(files[0]), QUrl::fromLocalFile(files[1])}, true, 2}, // once each
    };
    for (const auto& c : cases) {
        EXPECT_EQ(drop(&page, c.urls), c.accepted) << c.urls.first().toString().toStdString();
        EXPECT_EQ(page.files().size(), c.count);
    }
    EXPECT_EQ(page.files(), files);
    EXPECT_TRUE(page.isComplete());
}

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
