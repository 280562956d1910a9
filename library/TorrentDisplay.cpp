#include "library/TorrentDisplay.h"

#include "media/Format.h"

#include <algorithm>
#include <cmath>

double displayProgress(const TorrentStatus &t)
{
    double value = 0;
    if (t.isChecking())
        value = t.progress;
    else if (t.wanted < 1)
        value = t.hasMetadata ? 1.0 : 0.0;
    else
        value = static_cast<double>(t.wantedDone) / static_cast<double>(t.wanted);
    if (std::isnan(value))
        return 0;
    return std::clamp(value, 0.0, 1.0);
}

QString statusText(const TorrentStatus &t)
{
    if (t.state == QLatin1String("missing"))
        return QStringLiteral("Файл отсутствует");
    if (!t.error.isEmpty())
        return QStringLiteral("Ошибка");
    if (t.moving)
        return QStringLiteral("Перемещение");
    if (t.isChecking()) {
        if (!t.paused)
            return QStringLiteral("Проверка");
        // A paused check under the queue's control starts by itself when a slot frees up.
        return t.autoManaged ? QStringLiteral("Ожидание проверки") : QStringLiteral("Проверка · пауза");
    }
    if (t.state == QLatin1String("metadata"))
        return t.paused ? QStringLiteral("Пауза") : QStringLiteral("Метаданные");
    if (t.paused && t.autoManaged)
        return QStringLiteral("В очереди");
    if (t.paused && (t.finished || t.seeding))
        return QStringLiteral("Готово");
    if (t.paused)
        return QStringLiteral("Пауза");
    if (t.seeding)
        return QStringLiteral("Раздача");
    if (!t.finished)
        return QStringLiteral("Загрузка");
    if (t.wanted == 0)
        return QStringLiteral("Файлы не выбраны");
    return QStringLiteral("Готово");
}

QString statusSymbol(const TorrentStatus &t)
{
    if (!t.error.isEmpty())
        return QStringLiteral("exclamationmark.triangle.fill");
    if (t.isChecking())
        return QStringLiteral("arrow.triangle.2.circlepath");
    if (!t.paused) {
        if (t.seeding)
            return QStringLiteral("arrow.up.circle.fill");
        if (t.finished)
            return QStringLiteral("checkmark.circle.fill");
        return QStringLiteral("arrow.down.circle.fill");
    }
    if (t.finished || t.seeding)
        return QStringLiteral("checkmark.circle.fill");
    if (t.autoManaged)
        return QStringLiteral("clock");
    return QStringLiteral("pause.circle.fill");
}

QString resumeTitle(const QList<TorrentStatus> &statuses)
{
    const auto missing = std::count_if(statuses.begin(), statuses.end(),
                                       [](const TorrentStatus &t) { return t.state == QLatin1String("missing"); });
    if (!statuses.isEmpty() && missing == statuses.size())
        return QStringLiteral("Перезапустить");
    if (missing > 0)
        return QStringLiteral("Запустить");
    return QStringLiteral("Возобновить");
}

std::optional<double> downloadTimeLeft(const TorrentStatus &t)
{
    const qint64 left = t.wanted - t.wantedDone;
    if (left <= 0 || t.downloadRate < 1 || t.paused)
        return std::nullopt;
    return static_cast<double>(left) / static_cast<double>(t.downloadRate);
}

QString timeLeftText(const TorrentStatus &t)
{
    if (t.isChecking()) {
        const auto eta = t.checkingETA();
        if (!eta)
            return QStringLiteral("—");
        return QStringLiteral("≈ ") + Format::duration(std::ceil(*eta));
    }
    return Format::duration(downloadTimeLeft(t));
}
