#include "engine/TorrentStream.h"

#include "bridge/tb_bridge.h"

TorrentStream::TorrentStream(tb_reader *reader)
    : m_reader(reader)
{
}

TorrentStream::~TorrentStream()
{
    tb_reader_close(m_reader);
}

int64_t TorrentStream::read(char *buffer, int64_t length)
{
    return tb_reader_read(m_reader, buffer, length);
}

int64_t TorrentStream::seek(int64_t offset)
{
    return tb_reader_seek(m_reader, offset);
}

int64_t TorrentStream::size() const
{
    return tb_reader_size(m_reader);
}

void TorrentStream::cancel()
{
    tb_reader_cancel(m_reader);
}

TorrentStreamOpener::TorrentStreamOpener(tb_session *session, QString id, int file)
    : m_session(session)
    , m_id(std::move(id))
    , m_file(file)
{
}

std::unique_ptr<TorrentStream> TorrentStreamOpener::open() const
{
    if (!m_session)
        return nullptr;
    tb_reader *reader = tb_reader_open(m_session, m_id.toUtf8().constData(), m_file);
    if (!reader)
        return nullptr;
    return std::unique_ptr<TorrentStream>(new TorrentStream(reader));
}
