// Resume files as the restore at start reads them, with the torrent's presence file beside it.
// An input is the presence file's text, a NUL byte, then the resume file; an input that starts
// with NUL has no presence file. A resume file that libtorrent refuses stays on disk, so what
// matters here is what Velix makes of the ones it accepts.

#include "FuzzSupport.h"

#include "bridge/tb_session.h"

#include <libtorrent/read_resume_data.hpp>

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const uint8_t *end = data + size;
    const uint8_t *nul = std::find(data, end, uint8_t(0));
    if (nul == end)
        return 0;
    const std::vector<char> presence(data, nul);
    const std::vector<char> resume(nul + 1, end);

    lt::error_code ec;
    const lt::add_torrent_params params = lt::read_resume_data(resume, ec, tb::resume_limits());
    if (ec)
        return 0;
    const std::string id = tb::id_of(params.ti ? params.ti->info_hashes() : params.info_hashes);
    Fuzz::require(id.size() == 40, "an id is 40 hexadecimal digits");

    const std::set<int> fromResume = tb::resume_candidates(params);
    if (params.ti) {
        const lt::file_storage &files = params.ti->files();
        for (const int index : fromResume) {
            Fuzz::require(index >= 0 && index < files.num_files(), "a candidate is a file of the torrent");
            const lt::file_index_t file(index);
            Fuzz::require(!files.pad_file_at(file) && files.file_size(file) > 0, "a candidate is a file with data");
        }
    } else {
        Fuzz::require(fromResume.empty(), "without metadata no file is a candidate");
    }
    // The presence file wins over the piece list when there is one, whatever indices it names.
    tb::candidate_missing(params, presence.empty() ? fromResume : tb::parse_presence(presence));
    return 0;
}
