// The rules that turn a stream's read position into piece priorities.

#include "bridge/StreamWindow.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

using tb::StreamShape;
using tb::WindowPiece;

namespace {

constexpr int MiB = 1024 * 1024;

// Half a megabyte a second: a 1 MiB piece plays for 2097 ms.
const StreamShape Film{0, 99, MiB, 500'000};

std::vector<int> piecesOf(const std::vector<WindowPiece> &plan)
{
    std::vector<int> pieces;
    for (const WindowPiece &p : plan)
        pieces.push_back(p.piece);
    return pieces;
}

std::vector<int> range(int from, int to)
{
    std::vector<int> out;
    for (int k = from; k <= to; ++k)
        out.push_back(k);
    return out;
}

} // namespace

TEST(StreamWindowTest, WindowCoversSecondsOfFilmInPlayOrder)
{
    struct Case
    {
        const char *what;
        StreamShape shape;
        int start;
        std::set<int> had;
        std::vector<int> pieces;
        int atTop; // how many of them are at the top priority
    };
    const Case cases[] = {
        // 1 s of film at the top is one piece, 4 s next are 2 more, 40 s beyond are 20.
        {"start of the film", Film, 0, {}, range(0, 22), 1},
        {"middle of the film", Film, 50, {}, range(50, 72), 1},
        {"cut at the file's last piece", Film, 90, {}, range(90, 99), 1},
        {"pieces already there are left out", Film, 0, {0, 2, 3}, [] {
             std::vector<int> v{1};
             for (int k = 4; k <= 22; ++k)
                 v.push_back(k);
             return v;
         }(), 0},
        // Unknown rate: an 8 Mbit/s film is assumed, 1 + 4 + 39 pieces.
        {"unknown rate", {0, 199, MiB, 0}, 0, {}, range(0, 43), 1},
        // Huge pieces still leave the next ones queued behind the current one.
        {"32 MiB pieces", {0, 99, 32 * MiB, 1'000'000}, 0, {}, range(0, 3), 1},
        // Small pieces: the top stops at 32 pieces, the lower bands reach on.
        {"16 KiB pieces", {0, 9999, 16 * 1024, 1'000'000}, 0, {}, range(0, 32 + 245 + 2442 - 1), 32},
        {"a file that starts inside the torrent", {10, 40, MiB, 500'000}, 10, {}, range(10, 32), 1},
        {"a position outside the file", Film, 100, {}, {}, 0},
    };
    for (const Case &c : cases) {
        const auto plan = tb::plan_window(c.shape, c.start, [&](int piece) { return c.had.count(piece) > 0; });
        EXPECT_EQ(piecesOf(plan), c.pieces) << c.what;
        int atTop = 0;
        for (const WindowPiece &p : plan)
            atTop += p.priority == 7 ? 1 : 0;
        EXPECT_EQ(atTop, c.atTop) << c.what;
    }
}

TEST(StreamWindowTest, ThePlayPositionComesFirstAndTheRestFollowsByDistance)
{
    const auto none = [](int) { return false; };
    const auto plan = tb::plan_window(Film, 10, none);
    ASSERT_GE(plan.size(), 4u);
    // Only the piece under the position is at the top; the next seconds come next and the rest
    // after them, so the picker does not interleave them with the piece the player waits for.
    EXPECT_EQ(plan[0], (WindowPiece{10, 7}));
    EXPECT_EQ(plan[1], (WindowPiece{11, 6}));
    EXPECT_EQ(plan[2], (WindowPiece{12, 6}));
    EXPECT_EQ(plan[3], (WindowPiece{13, 5}));
    EXPECT_EQ(plan.back(), (WindowPiece{32, 5}));

    // Small pieces: the top holds a second of film, 8 of them.
    const StreamShape small{0, 999, 64 * 1024, 500'000};
    const auto smallPlan = tb::plan_window(small, 0, none);
    EXPECT_EQ(smallPlan[7], (WindowPiece{7, 7}));
    EXPECT_EQ(smallPlan[8], (WindowPiece{8, 6}));
}

TEST(StreamWindowTest, AJumpDropsTheOldRequestsAndPlayingOnKeepsThem)
{
    const auto none = [](int) { return false; };
    const auto at0 = tb::plan_window(Film, 0, none);
    std::set<int> laid;
    for (const WindowPiece &p : at0)
        laid.insert(p.piece);
    struct Case
    {
        const char *what;
        int oldStart;
        int start;
        bool jumps;
        std::vector<int> lowered;
    };
    const Case cases[] = {
        {"the first window of a stream", -1, 0, true, {}},
        {"the same position again", 0, 0, false, {}},
        {"playing on into the next piece", 0, 1, false, {0}},
        {"a seek forward inside the window", 0, 10, false, range(0, 9)},
        {"a seek past the window", 0, 50, true, range(0, 22)},
        {"a seek just past the window", 0, 23, true, range(0, 22)},
        {"a seek back", 5, 0, true, {}},
    };
    for (const Case &c : cases) {
        const auto plan = tb::plan_window(Film, c.start, none);
        const tb::WindowChange change = tb::change_window(Film, laid, c.oldStart, plan, c.start);
        EXPECT_EQ(change.jump, c.jumps) << c.what;
        EXPECT_EQ(change.lowered, c.lowered) << c.what;
        ASSERT_FALSE(change.raised.empty()) << c.what;
        // Whatever happened before, the new position is first in what is raised.
        EXPECT_EQ(change.raised.front(), (WindowPiece{c.start, 7})) << c.what;
    }
}
