#include "tavix/client/endpoint_set.h"

#include <algorithm>
#include <random>

#include "tavix/core/errors.h"

namespace TAVIX {
namespace {

constexpr std::u16string_view kOrderedOption = u"ordered";
constexpr std::u16string_view kBlanks = u" \t\r\n";

std::u16string_view Trimmed(std::u16string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::u16string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// The first word of a segment, up to a blank or the next separator: what
// decides whether it starts an endpoint.
std::u16string_view FirstWord(std::u16string_view segment) {
  const std::u16string_view trimmed = Trimmed(segment);
  return trimmed.substr(0, std::min(trimmed.find_first_of(u" \t\r\n:"), trimmed.size()));
}

bool IsLetters(std::u16string_view word) {
  return !word.empty() && std::all_of(word.begin(), word.end(), [](char16_t c) {
    return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z');
  });
}

// Splits at each ':' that a word of letters follows, as a transport word or
// the option does; the passport factory then refuses a word that is
// neither, so no separator is ever taken silently into a host or a port.
// Other colons stay inside their endpoint's text, and so do all colons of
// a bracketed IPv6 address ([::abc:def] holds a word of letters).
std::vector<std::u16string_view> Segments(std::u16string_view text) {
  std::vector<std::u16string_view> segments;
  size_t start = 0;
  bool inBrackets = false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == u'[' || text[i] == u']') inBrackets = text[i] == u'[';
    if (text[i] == u':' && !inBrackets && IsLetters(FirstWord(text.substr(i + 1)))) {
      segments.push_back(text.substr(start, i - start));
      start = i + 1;
    }
  }
  segments.push_back(text.substr(start));
  return segments;
}

bool Same(const EndpointSet::Target& a, const EndpointSet::Target& b) {
  return a.endpoint == b.endpoint && a.address == b.address;
}

size_t RandomIndex(size_t size) {
  thread_local std::mt19937 generator{std::random_device{}()};
  return std::uniform_int_distribution<size_t>(0, size - 1)(generator);
}

}  // namespace

bool EndpointSet::Parse(std::u16string_view text, EndpointSet& out) {
  EndpointSet parsed;
  const std::vector<std::u16string_view> segments = Segments(text);
  size_t i = 0;
  if (Trimmed(segments[0]) == kOrderedOption) {
    parsed.m_order = Order::kWritten;
    ++i;
  }
  for (; i < segments.size(); ++i) {
    SmartPtr<IPassport> passport = PassportFactory().Create(std::u16string(segments[i]));
    if (!passport) return false;
    parsed.m_endpoints.push_back(passport);
  }
  if (parsed.m_endpoints.empty()) {
    TavixSetLastError(Err::BadProxyString);
    return false;
  }
  parsed.SetOrder(parsed.m_order);
  out = std::move(parsed);
  return true;
}

EndpointSet EndpointSet::Of(const SmartPtr<IPassport>& passport) {
  EndpointSet one;
  one.m_endpoints.push_back(passport);
  return one;
}

void EndpointSet::SetOrder(Order order) {
  m_order = order;
  m_chosen = false;
  m_current = Target{order == Order::kWritten || m_endpoints.empty() ? 0 : RandomIndex(m_endpoints.size()), {}};
}

std::u16string EndpointSet::Print() const {
  std::u16string text = m_order == Order::kWritten && m_endpoints.size() > 1 ? std::u16string(kOrderedOption) : u"";
  for (const SmartPtr<IPassport>& endpoint : m_endpoints) {
    std::u16string printed;
    if (!text.empty()) text += u':';
    text += endpoint->toString(printed);
  }
  return text;
}

EndpointSet::Plan EndpointSet::Targets(uint64_t nowMs, bool moveOn) const {
  Plan plan;
  std::vector<Target> all;
  for (size_t i = 0; i < m_endpoints.size(); ++i) {
    std::vector<platform::SocketAddress> addresses;
    if (m_endpoints[i]->ClientAddresses(addresses) != 0) {
      plan.lookupError = TavixGetLastError();
      continue;
    }
    for (const platform::SocketAddress& address : addresses) all.push_back(Target{i, address});
  }
  if (all.empty()) return plan;
  const size_t n = all.size();
  const size_t current = PositionOfCurrent(all);
  size_t first = 0;
  if (m_order == Order::kRandomStart) {
    if (current == n) {
      first = RandomIndex(n);
    } else if (moveOn && n > 1) {
      first = (current + 1 + RandomIndex(n - 1)) % n;
    } else {
      first = current;
    }
  }
  std::vector<Target> waiting;
  for (size_t k = 0; k < n; ++k) {
    const Target& target = all[(first + k) % n];
    (IsBackingOff(target, nowMs) ? waiting : plan.targets).push_back(target);
  }
  plan.targets.insert(plan.targets.end(), waiting.begin(), waiting.end());
  return plan;
}

size_t EndpointSet::PositionOfCurrent(const std::vector<Target>& targets) const {
  if (!m_chosen) return targets.size();
  const auto found = std::find_if(targets.begin(), targets.end(), [&](const Target& t) { return Same(t, m_current); });
  return static_cast<size_t>(found - targets.begin());
}

bool EndpointSet::IsBackingOff(const Target& target, uint64_t nowMs) const {
  return std::any_of(m_backoffs.begin(), m_backoffs.end(),
                     [&](const Backoff& b) { return Same(b.target, target) && b.skipUntilMs > nowMs; });
}

void EndpointSet::Connected(const Target& target) {
  m_current = target;
  m_chosen = true;
  std::erase_if(m_backoffs, [&](const Backoff& b) { return Same(b.target, target); });
}

void EndpointSet::Failed(const Target& target, uint64_t nowMs) {
  // Addresses long past their back-off are forgotten, so names that
  // change keep the list short.
  std::erase_if(m_backoffs, [&](const Backoff& b) { return b.skipUntilMs + kLongestBackoffMs <= nowMs; });
  auto found = std::find_if(m_backoffs.begin(), m_backoffs.end(), [&](const Backoff& b) { return Same(b.target, target); });
  if (found == m_backoffs.end()) found = m_backoffs.insert(m_backoffs.end(), Backoff{target});
  found->backoffMs = found->backoffMs == 0 ? kFirstBackoffMs : std::min(found->backoffMs * 2, kLongestBackoffMs);
  found->skipUntilMs = nowMs + found->backoffMs;
}

}  // namespace TAVIX
