#include "support/MediaMaker.h"

#include <QProcess>
#include <QStringList>

#include <filesystem>
#include <fstream>

namespace testsupport {

namespace {

bool runFfmpeg(const QStringList &args)
{
    QProcess process;
    process.setStandardInputFile(QProcess::nullDevice());
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("ffmpeg"), QStringList{QStringLiteral("-hide_banner"), QStringLiteral("-loglevel"),
                                                        QStringLiteral("error"), QStringLiteral("-y")}
                                                + args);
    if (!process.waitForFinished(120000))
        return false;
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

const char *const Languages[] = {"rus", "eng", "jpn", "ger", "fre"};

} // namespace

bool makeSubtitleFile(const std::string &path)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream out(path);
    out << "1\n00:00:00,500 --> 00:00:01,500\nПервая реплика\n\n"
           "2\n00:00:02,000 --> 00:00:03,000\nВторая реплика\n\n";
    return static_cast<bool>(out);
}

bool makeVideo(const std::string &path, const MediaOptions &o)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    const QString seconds = QString::number(o.seconds);
    QStringList args;
    args << QStringLiteral("-f") << QStringLiteral("lavfi") << QStringLiteral("-i")
         << QStringLiteral("testsrc=size=%1x%2:rate=25:duration=%3").arg(o.width).arg(o.height).arg(seconds);
    const int audioTracks = o.audio ? std::max(1, o.audioTracks) : 0;
    for (int k = 0; k < audioTracks; ++k)
        args << QStringLiteral("-f") << QStringLiteral("lavfi") << QStringLiteral("-i")
             << QStringLiteral("sine=frequency=%1:duration=%2").arg(440 + 110 * k).arg(seconds);
    std::string srt;
    const bool subtitles = o.subtitles && o.container == "mkv";
    if (subtitles) {
        srt = path + ".tmp.srt";
        makeSubtitleFile(srt);
        args << QStringLiteral("-i") << QString::fromStdString(srt);
    }
    args << QStringLiteral("-map") << QStringLiteral("0:v");
    for (int k = 0; k < audioTracks; ++k)
        args << QStringLiteral("-map") << QStringLiteral("%1:a").arg(k + 1);
    if (subtitles)
        args << QStringLiteral("-map") << QStringLiteral("%1:s").arg(audioTracks + 1);
    args << QStringLiteral("-c:v") << QStringLiteral("libx264") << QStringLiteral("-preset")
         << QStringLiteral("ultrafast") << QStringLiteral("-pix_fmt") << QStringLiteral("yuv420p")
         << QStringLiteral("-g") << QStringLiteral("25");
    if (audioTracks > 0)
        args << QStringLiteral("-c:a") << QStringLiteral("aac") << QStringLiteral("-b:a") << QStringLiteral("64k");
    for (int k = 0; k < audioTracks; ++k)
        args << QStringLiteral("-metadata:s:a:%1").arg(k)
             << QStringLiteral("language=%1").arg(QLatin1String(Languages[k % 5]));
    if (subtitles)
        args << QStringLiteral("-c:s") << QStringLiteral("srt") << QStringLiteral("-metadata:s:s:0")
             << QStringLiteral("language=rus");
    if (o.container == "mp4")
        args << QStringLiteral("-movflags") << QStringLiteral("+faststart");
    args << QString::fromStdString(path);
    const bool ok = runFfmpeg(args);
    if (!srt.empty())
        std::filesystem::remove(srt);
    return ok;
}

bool makeAudio(const std::string &path, double seconds)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    return runFfmpeg({QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"),
                      QStringLiteral("sine=frequency=660:duration=%1").arg(seconds), QStringLiteral("-c:a"),
                      path.size() > 4 && path.substr(path.size() - 4) == ".mp3" ? QStringLiteral("libmp3lame")
                                                                              : QStringLiteral("aac"),
                      QString::fromStdString(path)});
}

} // namespace testsupport
