#include "support/Json.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <ostream>
#include <stdexcept>

namespace brindle::test {

/// From the library's form.
struct Json::Codec {
    static Json from(const nlohmann::ordered_json& source) {
        switch (source.type()) {
            case nlohmann::json::value_t::boolean:
                return source.get<bool>();
            case nlohmann::json::value_t::number_integer:
            case nlohmann::json::value_t::number_unsigned:
                return source.get<std::int64_t>();
            case nlohmann::json::value_t::number_float:
                return source.get<double>();
            case nlohmann::json::value_t::string:
                return source.get_ref<const std::string&>();
            case nlohmann::json::value_t::array: {
                Json result = array();
                for (const auto& element : source) result.push_back(from(element));
                return result;
            }
            case nlohmann::json::value_t::object: {
                Json result = object();
                for (const auto& member : source.items()) result[member.key()] = from(member.value());
                return result;
            }
            default:
                return nullptr;
        }
    }

    template <class T>
    static auto& alternative(auto& value, const char* expectation) {
        auto* found = std::get_if<T>(&value.value_);
        if (found == nullptr)
            throw std::runtime_error("expected " + std::string(expectation) + ", got " + value.dump());
        return *found;
    }
};

/// `Library` decides about the order of names.
template <class Library>
struct Json::Encoder {
    Library operator()(std::nullptr_t) const { return nullptr; }
    Library operator()(const Number& number) const { return number.value; }
    Library operator()(const Array& elements) const {
        auto result = Library::array();
        for (const auto& element : elements) result.push_back(std::visit(*this, element.value_));
        return result;
    }
    Library operator()(const Object& members) const {
        auto result = Library::object();
        for (const auto& [name, value] : members) result[name] = std::visit(*this, value.value_);
        return result;
    }
    template <class Plain>
    Library operator()(const Plain& value) const {
        return value;
    }
};

Json::Json(std::nullptr_t) : value_(nullptr) {}
Json::Json(bool value) : value_(value) {}
Json::Json(Number value) : value_(value) {}
Json::Json(double value) : value_(value) {}
Json::Json(const char* text) : value_(std::string(text)) {}
Json::Json(std::string_view text) : value_(std::string(text)) {}
Json::Json(std::string text) : value_(std::move(text)) {}

Json::Json(std::initializer_list<Json> elements) : value_(Array(elements)) {
    for (const auto& element : elements) {
        const auto* pair = std::get_if<Array>(&element.value_);
        if (pair == nullptr || pair->size() != 2 || !pair->front().isString()) return;
    }
    Object members;
    for (const auto& element : elements) members.push_back({element.front().text(), element.at(1)});
    value_ = std::move(members);
}

Json::Json(const Json& other) = default;
Json::Json(Json&& other) noexcept = default;
Json& Json::operator=(const Json& other) = default;
Json& Json::operator=(Json&& other) noexcept = default;
Json::~Json() = default;

Json Json::array(std::initializer_list<Json> elements) {
    Json result;
    result.value_ = Array(elements);
    return result;
}

Json Json::object() {
    Json result;
    result.value_ = Object();
    return result;
}

Json Json::parse(std::string_view text) {
    auto document = parseIfPossible(text);
    if (!document) throw std::runtime_error("not a JSON document: " + std::string(text));
    return std::move(*document);
}

std::optional<Json> Json::parseIfPossible(std::string_view text) {
    const auto document = nlohmann::ordered_json::parse(text, nullptr, false);
    if (document.is_discarded()) return std::nullopt;
    return Codec::from(document);
}

std::string Json::dump(int indentSpaces) const {
    return std::visit(Encoder<nlohmann::json>(), value_).dump(indentSpaces);
}

std::string Json::dumpInOrder() const {
    return std::visit(Encoder<nlohmann::ordered_json>(), value_).dump();
}

bool Json::isNull() const {
    return std::holds_alternative<std::nullptr_t>(value_);
}
bool Json::isString() const {
    return std::holds_alternative<std::string>(value_);
}
bool Json::isObject() const {
    return std::holds_alternative<Object>(value_);
}
bool Json::isArray() const {
    return std::holds_alternative<Array>(value_);
}

const std::string& Json::text() const {
    return Codec::alternative<std::string>(*this, "a string");
}

template <>
std::string Json::get<std::string>() const {
    return text();
}
template <>
bool Json::get<bool>() const {
    return Codec::alternative<bool>(*this, "true or false");
}
template <>
int Json::get<int>() const {
    return static_cast<int>(Codec::alternative<Number>(*this, "an integer").value);
}
template <>
std::vector<std::string> Json::get<std::vector<std::string>>() const {
    return {begin(), end()};
}

Json* Json::find(std::string_view name) {
    return const_cast<Json*>(std::as_const(*this).find(name));
}

const Json* Json::find(std::string_view name) const {
    const auto& all = members();
    const auto found =
        std::find_if(all.begin(), all.end(), [&](const Member& member) { return member.name == name; });
    return found == all.end() ? nullptr : &found->value;
}

Json& Json::operator[](std::string_view name) {
    if (isNull()) value_ = Object();
    if (Json* found = find(name)) return *found;
    return std::get<Object>(value_).emplace_back(Member{std::string(name), nullptr}).value;
}

Json& Json::at(std::string_view name) {
    return const_cast<Json&>(std::as_const(*this).at(name));
}

const Json& Json::at(std::string_view name) const {
    const Json* found = find(name);
    if (found == nullptr) throw std::runtime_error("no \"" + std::string(name) + "\" in " + dump());
    return *found;
}

bool Json::contains(std::string_view name) const {
    return isObject() && find(name) != nullptr;
}

Json Json::value(std::string_view name, Json fallback) const {
    return contains(name) ? at(name) : std::move(fallback);
}

bool Json::erase(std::string_view name) {
    return std::erase_if(Codec::alternative<Object>(*this, "an object"),
                         [&](const Member& member) { return member.name == name; }) != 0;
}

const Json::Object& Json::members() const {
    return Codec::alternative<Object>(*this, "an object");
}

const std::string& Json::firstName() const {
    if (members().empty()) throw std::runtime_error("an object without members has no first name");
    return members().front().name;
}

const Json& Json::atPointer(std::string_view pointer) const {
    const Json* place = this;
    while (!pointer.empty()) {
        pointer.remove_prefix(1);
        const auto name = pointer.substr(0, pointer.find('/'));
        place = place->isArray() ? &place->at(std::stoul(std::string(name))) : &place->at(name);
        pointer.remove_prefix(name.size());
    }
    return *place;
}

Json& Json::atPointer(std::string_view pointer) {
    Json* place = this;
    while (!pointer.empty()) {
        pointer.remove_prefix(1);
        const auto name = pointer.substr(0, pointer.find('/'));
        place = place->isArray() ? &std::get<Array>(place->value_).at(std::stoul(std::string(name)))
                                 : &(*place)[name];
        pointer.remove_prefix(name.size());
    }
    return *place;
}

bool Json::containsPointer(std::string_view pointer) const {
    const Json* place = this;
    while (!pointer.empty()) {
        pointer.remove_prefix(1);
        const auto name = pointer.substr(0, pointer.find('/'));
        if (!place->contains(name)) return false;
        place = &place->at(name);
        pointer.remove_prefix(name.size());
    }
    return true;
}

const Json& Json::at(std::size_t index) const {
    const auto& elements = Codec::alternative<Array>(*this, "an array");
    if (index >= elements.size())
        throw std::runtime_error("no element " + std::to_string(index) + " in " + dump());
    return elements[index];
}

void Json::push_back(Json element) {
    if (isNull()) value_ = Array();
    Codec::alternative<Array>(*this, "an array").push_back(std::move(element));
}

Json::Array::const_iterator Json::begin() const {
    return Codec::alternative<Array>(*this, "an array").begin();
}
Json::Array::const_iterator Json::end() const {
    return Codec::alternative<Array>(*this, "an array").end();
}

std::vector<Json*> Json::children() {
    std::vector<Json*> found;
    if (auto* elements = std::get_if<Array>(&value_)) {
        for (auto& element : *elements) found.push_back(&element);
    } else if (auto* all = std::get_if<Object>(&value_)) {
        for (auto& member : *all) found.push_back(&member.value);
    }
    return found;
}

std::size_t Json::size() const {
    if (const auto* elements = std::get_if<Array>(&value_)) return elements->size();
    return isNull() ? 0 : members().size();
}

bool operator==(const Json& left, const Json& right) {
    if (!left.isObject() || !right.isObject()) return left.value_ == right.value_;
    const auto& members = left.members();
    return members.size() == right.size() &&
           std::all_of(members.begin(), members.end(), [&](const Json::Member& member) {
               return right.contains(member.name) && right.at(member.name) == member.value;
           });
}

bool operator==(const Json::Member& left, const Json::Member& right) {
    return left.name == right.name && left.value == right.value;
}

std::strong_ordering operator<=>(const Json& left, const Json& right) {
    if (left.isString()) return left.text() <=> right.text();
    constexpr auto expectation = "an integer";
    return Json::Codec::alternative<Json::Number>(left, expectation) <=>
           Json::Codec::alternative<Json::Number>(right, expectation);
}

std::ostream& operator<<(std::ostream& stream, const Json& value) {
    return stream << value.dump();
}

void PrintTo(const Json& value, std::ostream* stream) {
    *stream << value;
}

}  // namespace brindle::test
