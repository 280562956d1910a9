#pragma once

// Stream tuning and what it holds, beside the flat interface of tb_bridge.h.

#include "bridge/tb_bridge.h"

#ifdef __cplusplus
extern "C" {
#endif

// The film's bytes per second, so that streams of this file size their windows in seconds of
// film; 0 or less forgets it and an assumed rate stands in.
void tb_stream_rate(tb_session *session, const char *id, int file, int64_t bytes_per_second);
// One digit a piece: the priority the picker gives it, 0 to 7. Streams raise the pieces ahead
// of their position; this shows what they hold.
char *tb_piece_priorities(tb_session *session, const char *id);
// The keys of a settings text that the library does not know, one a line: the session skips
// them without a word.
char *tb_unknown_settings(const char *settings);

#ifdef __cplusplus
}
#endif
