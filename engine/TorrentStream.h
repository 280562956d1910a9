#pragma once

#include <QString>

#include <cstdint>
#include <functional>
#include <memory>

struct tb_reader;
struct tb_session;

// One file of a torrent as a blocking, seekable byte stream. Every call but cancel() may wait
// for pieces, for minutes on a slow swarm, so a stream lives on a thread of its user's own
// (libmpv's stream thread, a stream server's connection thread), never on the main thread.
class TorrentStream
{
public:
    ~TorrentStream();
    TorrentStream(const TorrentStream &) = delete;
    TorrentStream &operator=(const TorrentStream &) = delete;

    // Bytes copied, at most to the end of the current piece; 0 at the end; -1 on failure or
    // after cancel.
    int64_t read(char *buffer, int64_t length);
    // The new position, or -1.
    int64_t seek(int64_t offset);
    int64_t size() const;
    // From any thread: a blocked read returns -1 soon, and so does every later one.
    void cancel();

private:
    friend class TorrentStreamOpener;
    explicit TorrentStream(tb_reader *reader);
    tb_reader *m_reader;
};

// Opens streams of one file. Made on the main thread by the engine and called on the thread
// that will read; null when the torrent or file is unknown, has no metadata yet, or a file of
// it is missing on disk.
class TorrentStreamOpener
{
public:
    TorrentStreamOpener() = default;
    TorrentStreamOpener(tb_session *session, QString id, int file);
    std::unique_ptr<TorrentStream> open() const;
    explicit operator bool() const { return m_session != nullptr; }

private:
    tb_session *m_session = nullptr;
    QString m_id;
    int m_file = 0;
};
