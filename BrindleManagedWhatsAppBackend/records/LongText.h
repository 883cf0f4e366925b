#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace brindle {

/// A text that may be many megabytes long. It is its own or stands in memory that somebody else keeps, so
/// that a long one need not be copied on its way from one place to another.
class LongText {
  public:
    LongText() = default;
    // Implicit, so that a record with such a field is filled like any other.
    LongText(std::string text) : text_(std::move(text)) {}
    LongText(const char* text) : text_(std::string(text)) {}
    /// Whoever keeps the text must do so as long as this and its copies are used.
    static LongText borrowed(std::string_view text) {
        LongText result;
        result.text_ = text;
        return result;
    }

    std::string_view view() const {
        return std::visit([](const auto& text) { return std::string_view(text); }, text_);
    }

    friend bool operator==(const LongText& left, const LongText& right) {
        return left.view() == right.view();
    }

  private:
    std::variant<std::string, std::string_view> text_;
};

}  // namespace brindle
