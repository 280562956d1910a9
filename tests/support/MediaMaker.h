#pragma once

#include <string>

namespace testsupport {

struct MediaOptions
{
    double seconds = 4.0;
    int width = 320;
    int height = 180;
    bool audio = true;
    int audioTracks = 1;          // each tagged with a language: rus, eng, jpn, ...
    bool subtitles = false;       // an embedded subtitle track (mkv only)
    std::string container = "mkv"; // "mkv" or "mp4"
};

// Makes a small video file with ffmpeg at run time. Returns false when ffmpeg fails.
bool makeVideo(const std::string &path, const MediaOptions &options = {});
// A small .srt file with a few cues.
bool makeSubtitleFile(const std::string &path);
// An audio-only file (mka or mp3 by extension).
bool makeAudio(const std::string &path, double seconds = 4.0);

} // namespace testsupport
