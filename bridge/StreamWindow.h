#pragma once

// What a stream asks of the swarm for its read position, as plain numbers: which pieces, in
// which order and at which priority. The reader turns these into library calls; the
// rules themselves stay free of libtorrent so they can be checked as tables.

#include <cstdint>
#include <functional>
#include <set>
#include <vector>

namespace tb {

// The film a reader streams, in the torrent's piece space.
struct StreamShape
{
    int first_piece = 0;
    int last_piece = 0;
    int piece_length = 0;
    // Bytes of film a second of playing consumes; 0 when unknown.
    int64_t rate = 0;
};

struct WindowPiece
{
    int piece = 0;
    int priority = 0;

    bool operator==(const WindowPiece &) const = default;
};

// The stream's rate when nothing better is known: a high-definition film's 8 Mbit/s. Sizing the
// window for more than the real rate costs only a longer window.
inline constexpr int64_t AssumedRate = 1'000'000;
// Seconds of film at the top priority from the read position on, the seconds after them that
// come next, and the seconds raised above the rest of the file beyond those.
inline constexpr int TopSeconds = 1;
inline constexpr int NextSeconds = 4;
inline constexpr int WindowSeconds = 40;
// The file's last piece, where containers keep their index, comes right after the first pieces.
inline constexpr int TailPriority = 6;

// The pieces to raise for a read at `start`, in play order, leaving out those `have` says are
// there. The picker serves the pieces of one priority side by side, so only the piece under the
// read position (with the rest of its TopSeconds of film, for small pieces) is at the top: the
// next seconds get the priority below and the rest of the window the one below that, and the
// picker fetches in play order rather than all at once.
std::vector<WindowPiece> plan_window(const StreamShape &shape, int start, const std::function<bool(int)> &have);

// How a reader moves from the window it laid to a new one.
struct WindowChange
{
    // The position jumped (a seek back or past the old window, or the first window of a stream):
    // the requests queued for the old position are to be dropped at once.
    bool jump = false;
    // Pieces given back to the file's priority.
    std::vector<int> lowered;
    std::vector<WindowPiece> raised;
};

// How many pieces are at the top priority for this shape, the first included, and how many the
// whole window holds.
int top_pieces(const StreamShape &shape);
int window_pieces(const StreamShape &shape);

// `laid` holds the pieces raised by the last window, laid at `old_start` (-1: none yet). Playing
// on, or a seek forward into the old window, keeps the requests under way, which are all for
// pieces still wanted; a move back or past the old window is a jump.
WindowChange change_window(const StreamShape &shape, const std::set<int> &laid, int old_start,
                           const std::vector<WindowPiece> &plan, int start);

} // namespace tb
