#include "checking/MachineInfo.h"
#include "engine/TorrentEngine.h"

#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <optional>

using testsupport::TempDir;

TEST(CheckingResourcesEngineTest, PlaybackCutsHashingAtOnceAndTheEngineStartsGoverned)
{
    TempDir home;
    TorrentEngine engine(home.qpath(), nullptr,
                         QString::fromStdString(testsupport::quietSettingsText(testsupport::freeTcpPort())));
    const CheckingResources::Hardware hardware = engine.checkingHardware();
    ASSERT_EQ(hardware, readHardware());

    // Nothing above what an idle machine of this size may use, from the first moment on; the
    // first poll has already sampled the load.
    const CheckingResources idle = CheckingResources::target(hardware, {});
    EXPECT_LE(engine.checkingResources().threads, idle.threads);
    EXPECT_LE(engine.checkingResources().blocks, idle.blocks);
    EXPECT_TRUE(std::isfinite(engine.lastResourceSample()));

    CheckingResources::Conditions playing;
    playing.playbackActive = true;
    const CheckingResources whilePlaying = CheckingResources::target(hardware, playing);
    engine.setCheckingPlaybackActive(true);
    EXPECT_LE(engine.checkingResources().threads, whilePlaying.threads);
    EXPECT_LE(engine.checkingResources().blocks, whilePlaying.blocks);
    EXPECT_EQ(engine.memoryPressure(), MemoryPressure::Normal);
}

TEST(CheckingResourcesEngineTest, SpeedAndTimeLeftShowOnlyForARunningCheckWithARate)
{
    struct Row
    {
        const char *what;
        const char *state;
        bool paused;
        const char *error;
        std::optional<double> rate;
        QString speed;
        std::optional<double> eta;
        double progress = 0.5;
        qint64 total = 2000;
    };
    const QString none = QStringLiteral("—");
    const Row rows[] = {
        {"a running check", "checking", false, "", 512, "512 байт/с", 500.0 * 2 / 512},
        {"a faster one", "checking", false, "", 15360, "15 КБ/с", 1000.0 / 15360},
        {"a stalled one", "checking", false, "", 0, "0 байт/с", std::nullopt},
        {"a rate below a byte", "checking", false, "", 0.5, "0 байт/с", std::nullopt},
        {"a negative rate", "checking", false, "", -5, "0 байт/с", std::nullopt},
        {"no rate yet", "checking", false, "", std::nullopt, none, std::nullopt},
        {"paused", "checking", true, "", 512, none, std::nullopt},
        {"failed", "checking", false, "read error", 512, none, std::nullopt},
        {"not checking", "downloading", false, "", 512, none, std::nullopt},
        {"done", "checking", false, "", 512, "512 байт/с", std::nullopt, 1.0},
        {"past done", "checking", false, "", 512, "512 байт/с", std::nullopt, 1.5},
        {"nothing to check", "checking", false, "", 512, "512 байт/с", std::nullopt, 0.5, 0},
    };
    for (const Row &row : rows) {
        TorrentStatus t;
        t.state = QString::fromLatin1(row.state);
        t.paused = row.paused;
        t.error = QString::fromLatin1(row.error);
        t.total = row.total;
        t.progress = row.progress;
        t.checkingRate = row.rate;
        EXPECT_EQ(t.checkingSpeedText(), row.speed) << row.what;
        EXPECT_EQ(t.checkingETA(), row.eta) << row.what;
    }
}
