// Presence files: which files of a torrent were seen complete on disk. Read at every start and
// after every restore, so a damaged one must read as something, and what it reads as must
// survive being written back.

#include "FuzzSupport.h"

#include "bridge/tb_session.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::vector<char> bytes(data, data + size);
    const std::set<int> present = tb::parse_presence(bytes);
    Fuzz::require(present.empty() || *present.begin() >= 0, "file indices are never negative");

    const std::string text = tb::presence_text(present);
    Fuzz::require(tb::parse_presence(std::vector<char>(text.begin(), text.end())) == present,
                  "a presence file reads back as it was written");
    return 0;
}
