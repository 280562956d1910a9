#include "bridge/StreamWindow.h"

#include <algorithm>

namespace tb {

namespace {

constexpr int TopPriority = 7;
// The next seconds after the top, then the rest of the window: each band is fetched only
// once the band above it is all requested, which keeps the download in play order.
constexpr int NextPriority = 6;
constexpr int AheadPriority = 5;
constexpr int MinTopPieces = 1;
constexpr int MaxTopPieces = 32;
constexpr int MinWindowPieces = 4;

int64_t rate_of(const StreamShape &shape)
{
    return shape.rate > 0 ? shape.rate : AssumedRate;
}

int64_t pieces_for(int64_t seconds, const StreamShape &shape)
{
    const int64_t length = std::max(shape.piece_length, 1);
    return (seconds * rate_of(shape) + length - 1) / length;
}

} // namespace

int top_pieces(const StreamShape &shape)
{
    return static_cast<int>(std::clamp<int64_t>(pieces_for(TopSeconds, shape), MinTopPieces, MaxTopPieces));
}

int window_pieces(const StreamShape &shape)
{
    return static_cast<int>(std::max<int64_t>(
        top_pieces(shape) + pieces_for(NextSeconds, shape) + pieces_for(WindowSeconds, shape), MinWindowPieces));
}

std::vector<WindowPiece> plan_window(const StreamShape &shape, int start, const std::function<bool(int)> &have)
{
    std::vector<WindowPiece> plan;
    if (start < shape.first_piece || start > shape.last_piece)
        return plan;
    const int top = top_pieces(shape);
    const int64_t next = top + pieces_for(NextSeconds, shape);
    const int end = static_cast<int>(std::min<int64_t>(int64_t(start) + window_pieces(shape) - 1, shape.last_piece));
    for (int piece = start; piece <= end; ++piece) {
        if (have(piece))
            continue;
        const int distance = piece - start;
        plan.push_back({piece, distance < top ? TopPriority : distance < next ? NextPriority : AheadPriority});
    }
    return plan;
}

WindowChange change_window(const StreamShape &shape, const std::set<int> &laid, int old_start,
                           const std::vector<WindowPiece> &plan, int start)
{
    WindowChange change;
    change.jump = old_start < 0 || start < old_start || start >= old_start + window_pieces(shape);
    std::set<int> wanted;
    for (const WindowPiece &piece : plan)
        wanted.insert(piece.piece);
    for (const int piece : laid) {
        if (!wanted.count(piece))
            change.lowered.push_back(piece);
    }
    change.raised = plan;
    return change;
}

} // namespace tb
