#pragma once

#include "playback/MediaTrack.h"

#include <QList>
#include <QString>

#include <cstdint>

// A property value as the core hands it on: only the kinds the player reads.
struct MPVValue
{
    enum class Kind { None, Flag, Double, String };

    Kind kind = Kind::None;
    bool flag = false;
    double number = 0.0;
    QString string;

    static MPVValue none() { return {}; }
    static MPVValue ofFlag(bool value) { return {Kind::Flag, value, 0.0, {}}; }
    static MPVValue ofDouble(double value) { return {Kind::Double, false, value, {}}; }
    static MPVValue ofString(const QString &value) { return {Kind::String, false, 0.0, value}; }

    bool operator==(const MPVValue &) const = default;
};

// One thing libmpv reported, turned into plain data on the core's queue and delivered on the
// main thread. Only the fields of `kind` are meaningful.
struct MPVEvent
{
    enum class Kind { Property, Tracks, EndFile, FileLoaded, PlaybackRestart, Shutdown };

    Kind kind = Kind::Shutdown;
    // Property
    QString name;
    MPVValue value;
    // Tracks
    QList<MediaTrack> tracks;
    // EndFile: libmpv's mpv_end_file_reason and error code.
    int32_t reason = 0;
    int32_t error = 0;

    static MPVEvent property(const QString &name, const MPVValue &value)
    {
        MPVEvent e;
        e.kind = Kind::Property;
        e.name = name;
        e.value = value;
        return e;
    }
    static MPVEvent trackList(QList<MediaTrack> tracks)
    {
        MPVEvent e;
        e.kind = Kind::Tracks;
        e.tracks = std::move(tracks);
        return e;
    }
    static MPVEvent endFile(int32_t reason, int32_t error)
    {
        MPVEvent e;
        e.kind = Kind::EndFile;
        e.reason = reason;
        e.error = error;
        return e;
    }
    static MPVEvent of(Kind kind)
    {
        MPVEvent e;
        e.kind = kind;
        return e;
    }

    bool operator==(const MPVEvent &) const = default;
};
