// PLACEHOLDER until the stream reader lands.
#include "bridge/tb_session.h"
void tb_session::trim_piece_cache() {}
extern "C" {
tb_reader *tb_reader_open(tb_session *, const char *, int) { return nullptr; }
int64_t tb_reader_read(tb_reader *, void *, int64_t) { return -1; }
int64_t tb_reader_seek(tb_reader *, int64_t) { return -1; }
int64_t tb_reader_size(tb_reader *) { return -1; }
void tb_reader_cancel(tb_reader *) {}
void tb_reader_close(tb_reader *) {}
void tb_prefetch(tb_session *, const char *, int, int64_t, double) {}
double tb_stream_progress(tb_session *, const char *, int) { return -1.0; }
}
