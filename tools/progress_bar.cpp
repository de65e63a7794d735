#include "progress_bar.h"

#include <algorithm>
#include <cstdio>

#include <fmt/format.h>

namespace luafxs {

void ProgressBar::draw(uint64_t done, uint64_t total, const std::string& words) {
  if (!m_enabled || total == 0) return;
  constexpr uint64_t kWidth = 30;
  m_done = std::min(done, total);
  m_total = total;
  m_words = words;
  const uint64_t filled = m_done * kWidth / m_total;
  fmt::print(stderr, "\r[{}{}] {}/{} {}", std::string(filled, '#'),
             std::string(kWidth - filled, '.'), m_done, m_total, m_words);
  std::fflush(stderr);
  m_drawn = true;
}

void ProgressBar::finish() {
  if (!m_drawn) return;
  if (m_done < m_total) draw(m_total, m_total, m_words);
  fmt::print(stderr, "\n");
}

}  // namespace luafxs
