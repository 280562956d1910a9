// The main thread's cost of a status round with a large library on screen: a real engine fed
// decoded rounds of 2,000 torrents as its poll would apply them, the library window drawn under
// Xvfb, and a share of the torrents changing each round. Prints the time of each step.
//
// usage: xvfb-run -a -s "-screen 0 1920x1080x24" velix_bench_library_view [torrents] [rounds]

#include "library/MainViewModel.h"

#include "engine/TorrentEngine.h"
#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <QElapsedTimer>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQmlExtensionPlugin>
#include <QQuickWindow>
#include <QTest>
#include <QtPlugin>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <vector>

Q_IMPORT_QML_PLUGIN(Velix_LibraryPlugin)

namespace {

TorrentStatus torrent(int i)
{
    static const char *const names[] = {"Silver.Harbor.S02E%02d.1080p.WEB-DL.mkv", "Dark_Hollow_(19%02d)_[DVDRip].avi",
                                        "Лунный.Свет.20%02d.BDRip.1080p", "Some Band - Greatest Hits %02d"};
    TorrentStatus t;
    t.id = QStringLiteral("%1").arg(i, 40, 16, QLatin1Char('0'));
    t.name = QString::asprintf(names[i % 4], i % 100) + QStringLiteral(" #%1").arg(i);
    t.state = QStringLiteral("downloading");
    t.hasMetadata = true;
    t.total = 1'000'000'000;
    t.wanted = t.total;
    t.wantedDone = (i * 7919) % t.total;
    t.added = 1'700'000'000 - i;
    t.pieces = 1000;
    t.savePath = QStringLiteral("/tmp");
    return t;
}

double percentile(std::vector<double> values, double p)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(p * static_cast<double>(values.size() - 1))];
}

} // namespace

int main(int argc, char **argv)
{
    QGuiApplication app(argc, argv);
    std::setlocale(LC_NUMERIC, "C");
    const int count = argc > 1 ? std::atoi(argv[1]) : 2000;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 60;

    testsupport::TempDir home;
    TorrentEngine engine(home.qpath(), nullptr,
                         QString::fromStdString(testsupport::quietSettingsText(testsupport::freeTcpPort())));
    MainUIState state(home.qpath(), &engine);
    MainViewModel model(&engine, nullptr, &state);
    MainViewModel::install(&model);

    StatusSnapshot snapshot;
    for (int i = 0; i < count; ++i)
        snapshot.torrents << torrent(i);
    engine.apply(snapshot, {});

    QQmlApplicationEngine qml;
    qml.addImportPath(QStringLiteral("qrc:/qt/qml"));
    qml.loadData(R"(
        import QtQuick
        Window {
            width: 1280; height: 820; visible: true
            Loader { anchors.fill: parent; source: "qrc:/qt/qml/Velix/Library/MainView.qml" }
        })");
    auto *window = qobject_cast<QQuickWindow *>(qml.rootObjects().value(0));
    if (!window || !QTest::qWaitForWindowExposed(window)) {
        std::fprintf(stderr, "no window\n");
        return 1;
    }
    QTest::qWait(500);

    std::vector<double> applyMs;
    std::vector<double> refreshMs;
    for (int round = 0; round < rounds; ++round) {
        // A tenth of the library moves each round, as a busy library's rates and progress do.
        for (int i = round % 10; i < count; i += 10) {
            TorrentStatus &t = snapshot.torrents[i];
            t.downloadRate = 1000 + (round * 37 + i) % 50000;
            t.wantedDone = std::min(t.wanted, t.wantedDone + t.downloadRate);
            t.peers = (round + i) % 30;
        }
        QElapsedTimer took;
        took.start();
        engine.apply(snapshot, {});
        applyMs.push_back(static_cast<double>(took.nsecsElapsed()) / 1e6);
        refreshMs.push_back(static_cast<double>(model.lastRefreshMicroseconds()) / 1e3);
        QTest::qWait(50); // let the frame draw
    }

    std::vector<double> searchMs;
    for (const QString &query : {QStringLiteral("silver harbor s02"), QStringLiteral("лунный свет 2015"),
                                 QStringLiteral("dark hollow 1987"), QString()}) {
        QElapsedTimer took;
        took.start();
        state.setSearch(query);
        searchMs.push_back(static_cast<double>(took.nsecsElapsed()) / 1e6);
        QTest::qWait(50);
    }

    // Scrolling: flick the grid through the library.
    std::printf("torrents=%d rounds=%d\n", count, rounds);
    std::printf("poll main thread (apply + model + bindings): median %.2f ms, p99 %.2f ms, max %.2f ms\n",
                percentile(applyMs, 0.5), percentile(applyMs, 0.99), percentile(applyMs, 1.0));
    std::printf("of which model refresh: median %.2f ms, p99 %.2f ms\n", percentile(refreshMs, 0.5),
                percentile(refreshMs, 0.99));
    std::printf("search typed (filter + model + bindings): ");
    for (const double ms : searchMs)
        std::printf("%.2f ms ", ms);
    std::printf("\n");
    qml.clearComponentCache();
    MainViewModel::install(nullptr);
    engine.shutdown();
    return 0;
}
