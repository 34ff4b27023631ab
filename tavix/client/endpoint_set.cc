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
// Other colons stay inside their endpoint's text.
std::vector<std::u16string_view> Segments(std::u16string_view text) {
  std::vector<std::u16string_view> segments;
  size_t start = 0;
  for (size_t colon = text.find(u':'); colon != std::u16string_view::npos; colon = text.find(u':', colon + 1)) {
    if (IsLetters(FirstWord(text.substr(colon + 1)))) {
      segments.push_back(text.substr(start, colon - start));
      start = colon + 1;
    }
  }
  segments.push_back(text.substr(start));
  return segments;
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
    parsed.m_endpoints.push_back(Endpoint{passport});
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
  one.m_endpoints.push_back(Endpoint{passport});
  return one;
}

void EndpointSet::SetOrder(Order order) {
  m_order = order;
  m_current = order == Order::kWritten || m_endpoints.empty() ? 0 : RandomIndex(m_endpoints.size());
}

std::u16string EndpointSet::Print() const {
  std::u16string text = m_order == Order::kWritten && m_endpoints.size() > 1 ? std::u16string(kOrderedOption) : u"";
  for (const Endpoint& endpoint : m_endpoints) {
    std::u16string printed;
    if (!text.empty()) text += u':';
    text += endpoint.passport->toString(printed);
  }
  return text;
}

std::vector<size_t> EndpointSet::Candidates(uint64_t nowMs, bool moveOn) const {
  const size_t n = m_endpoints.size();
  const size_t first = m_order == Order::kWritten ? 0 : (m_current + (moveOn ? 1 : 0)) % n;
  std::vector<size_t> ready, waiting;
  for (size_t k = 0; k < n; ++k) {
    const size_t i = (first + k) % n;
    (m_endpoints[i].skipUntilMs > nowMs ? waiting : ready).push_back(i);
  }
  ready.insert(ready.end(), waiting.begin(), waiting.end());
  return ready;
}

void EndpointSet::Connected(size_t i) {
  m_current = i;
  m_endpoints[i].skipUntilMs = 0;
  m_endpoints[i].backoffMs = 0;
}

void EndpointSet::Failed(size_t i, uint64_t nowMs) {
  Endpoint& endpoint = m_endpoints[i];
  endpoint.backoffMs = endpoint.backoffMs == 0 ? kFirstBackoffMs : std::min(endpoint.backoffMs * 2, kLongestBackoffMs);
  endpoint.skipUntilMs = nowMs + endpoint.backoffMs;
}

}  // namespace TAVIX
