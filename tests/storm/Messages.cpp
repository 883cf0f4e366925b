#include "storm/Messages.h"

#include <charconv>

namespace brindle::test {
namespace {

constexpr std::string_view echo_prefix = "Echo: ";

std::size_t fillBytes(std::int64_t number) {
    constexpr std::int64_t large_bytes = 150'000;
    constexpr std::int64_t medium_bytes = 9'000;
    constexpr std::int64_t small_bytes = 200;
    if (number % 97 == 50) return large_bytes;
    if (number % 13 == 7) return medium_bytes;
    return static_cast<std::size_t>(number * 31 % small_bytes);
}

}  // namespace

std::string Message::name() const {
    return static_cast<char>(series) + std::to_string(number);
}

std::string Message::text() const {
    if (series == Series::echo) return std::string(echo_prefix) + Message{Series::outbound, number}.text();
    // The page tells the time in its numbers and nothing else.
    if (series == Series::page) return name();
    return name() + " " + std::string(fillBytes(number), 'x');
}

std::string Message::identifier() const {
    constexpr std::size_t digits = 8;
    const auto numberText = std::to_string(number);
    return static_cast<char>(series) + std::string(digits - numberText.size(), '0') + numberText;
}

std::optional<Message> Message::withText(std::string_view text) {
    const bool isEcho = text.starts_with(echo_prefix);
    const auto body = isEcho ? text.substr(echo_prefix.size()) : text;
    if (body.empty()) return std::nullopt;
    Message message{static_cast<Series>(body.front()), 0};
    const auto parsed = std::from_chars(body.data() + 1, body.data() + body.size(), message.number);
    if (parsed.ec != std::errc()) return std::nullopt;
    if (isEcho && message.series == Series::outbound) message.series = Series::echo;
    if (message.text() != text) return std::nullopt;
    return message;
}

std::optional<Message> Message::in(const Json& record) {
    if (!record.isObject() || !record.contains("text") || !record.at("text").isString()) return std::nullopt;
    return withText(record.at("text").text());
}

}  // namespace brindle::test
