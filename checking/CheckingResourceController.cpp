#include "checking/CheckingResourceController.h"

#include <algorithm>

namespace {

constexpr double RiseDelaySeconds = 5.0;

} // namespace

const CheckingResources &CheckingResourceController::update(const CheckingResources &target, double now)
{
    if (target.threads < m_current.threads || target.blocks < m_current.blocks) {
        // Whatever falls, falls now; a field that would rise at the same moment waits for a
        // later call and starts its wait afresh.
        m_current.threads = std::min(m_current.threads, target.threads);
        m_current.blocks = std::min(m_current.blocks, target.blocks);
        m_increaseSince.reset();
        return m_current;
    }
    if (target == m_current) {
        m_increaseSince.reset();
        return m_current;
    }
    // A rise. The target may move meanwhile; as long as it stays above what is in force the
    // wait goes on from when it began.
    if (!m_increaseSince)
        m_increaseSince = now;
    if (now - *m_increaseSince < RiseDelaySeconds)
        return m_current;
    m_current = target;
    m_increaseSince.reset();
    return m_current;
}
