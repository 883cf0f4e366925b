#pragma once

#include <algorithm>
#include <functional>
#include <limits>
#include <map>
#include <span>
#include <string>
#include <string_view>

#include "records/Record.h"
#include "records/RecordExamples.h"
#include "records/TypeName.h"

/// JSON Schemas (draft 2020-12) and reference tables of records, made from the records' own declarations.
///
/// A schema accepts what a reader accepts, members that nobody knows and null for what may be absent
/// included. It is stricter in one thing: where only certain words are written it takes no others, and a
/// reader takes any.
namespace brindle {

/// What a schema says about itself.
struct SchemaTitle {
    /// A URI (RFC 3986) that stays the same as long as what the schema accepts.
    std::string id;
    std::string title;
    std::string_view meaning;
};

namespace record {

/// Schemas by their names, each as what writes it.
using NamedSchemas = std::map<std::string, std::function<void(JsonWriter&)>, std::less<>>;

inline void writeSchemas(JsonWriter& writer, std::string_view name, const NamedSchemas& schemas) {
    if (schemas.empty()) return;
    writer.name(name);
    writer.beginObject();
    for (const auto& [each, write] : schemas) {
        writer.name(each);
        write(writer);
    }
    writer.endObject();
}

template <class T>
constexpr std::string_view meaningOf() {
    if constexpr (requires { T::meaning; }) {
        return T::meaning;
    } else {
        return {};
    }
}

inline void writeMember(JsonWriter& writer, std::string_view name, std::string_view value) {
    if (value.empty()) return;
    writer.name(name);
    writer.string(value);
}

template <class T>
constexpr std::string_view jsonTypeName() {
    if constexpr (std::same_as<T, bool>) {
        return "boolean";
    } else if constexpr (std::same_as<T, std::int64_t>) {
        return "integer";
    } else if constexpr (std::same_as<T, std::string> || std::same_as<T, LongText>) {
        return "string";
    } else if constexpr (IsVector<T>::value) {
        return "array";
    } else if constexpr (IsOptional<T>::value) {
        return jsonTypeName<typename T::value_type>();
    } else {
        return "object";
    }
}

/// True for what has a name of its own, under which a document defines it once.
template <class T>
inline constexpr bool is_defined = RecordType<T> || EnumerationType<T>;

template <class T>
void writeReference(JsonWriter& writer) {
    writer.name("$ref");
    writer.string("#/$defs/" + typeName<T>());
}

template <class T>
void writeReferenceObject(JsonWriter& writer) {
    writer.beginObject();
    writeReference<T>(writer);
    writer.endObject();
}

inline void writeTypeObject(JsonWriter& writer, std::string_view type) {
    writer.beginObject();
    writeMember(writer, "type", type);
    writer.endObject();
}

/// A value that has a name, or nothing.
template <class T>
void writeOptionalReference(JsonWriter& writer, std::string_view meaning) {
    writer.name("anyOf");
    writer.beginArray();
    writeReferenceObject<T>(writer);
    writeTypeObject(writer, "null");
    writer.endArray();
    writeMember(writer, "description", meaning);
}

inline void writeWords(JsonWriter& writer, std::span<const std::string_view> words) {
    writer.name("enum");
    writer.beginArray();
    for (const auto word : words) writer.string(word);
    writer.endArray();
}

inline void writeExample(JsonWriter& writer, std::string_view example) {
    if (example.empty()) return;
    writer.name("examples");
    writer.beginArray();
    writer.string(example);
    writer.endArray();
}

template <class T>
void writeElements(JsonWriter& writer) {
    writer.name("items");
    if constexpr (is_defined<typename T::value_type>) {
        writeReferenceObject<typename T::value_type>(writer);
    } else {
        writeTypeObject(writer, jsonTypeName<typename T::value_type>());
    }
}

inline void writeIntegerRange(JsonWriter& writer) {
    writer.name("maximum");
    writer.integer(std::numeric_limits<std::int64_t>::max());
    writer.name("minimum");
    writer.integer(std::numeric_limits<std::int64_t>::min());
}

inline void writeType(JsonWriter& writer, std::string_view type, bool isOptional) {
    writer.name("type");
    if (!isOptional) return writer.string(type);
    writer.beginArray();
    writer.string(type);
    writer.string("null");
    writer.endArray();
}

/// The members of the schema of a field that holds a `T`.
template <class T>
void writeValue(JsonWriter& writer, std::string_view meaning, const Form& form, bool isOptional) {
    if constexpr (is_defined<T>) {
        if (isOptional) return writeOptionalReference<T>(writer, meaning);
        writeReference<T>(writer);
        writeMember(writer, "description", meaning);
    } else {
        writeMember(writer, "contentEncoding", form.encoding);
        writeMember(writer, "description", meaning);
        // An option would need null among its words.
        if (!form.words.empty() && !isOptional) writeWords(writer, form.words);
        writeExample(writer, form.example);
        writeMember(writer, "format", form.format);
        if constexpr (IsVector<T>::value) writeElements<T>(writer);
        if constexpr (std::same_as<T, std::int64_t>) writeIntegerRange(writer);
        writeType(writer, jsonTypeName<T>(), isOptional);
    }
}

template <RecordType R>
void writeProperties(JsonWriter& writer) {
    writer.name("properties");
    writer.beginObject();
    forEachFieldByName<R>([&]<class Value>(const Field<R, Value>& each) {
        writer.name(each.name);
        writer.beginObject();
        if constexpr (IsOptional<Value>::value) {
            writeValue<typename Value::value_type>(writer, each.meaning, each.form, true);
        } else {
            writeValue<Value>(writer, each.meaning, each.form, false);
        }
        writer.endObject();
    });
    writer.endObject();
    writer.name("required");
    writer.beginArray();
    forEachFieldByName<R>([&]<class Value>(const Field<R, Value>& each) {
        if constexpr (!IsOptional<Value>::value) writer.string(each.name);
    });
    writer.endArray();
}

inline void writeRequired(JsonWriter& writer, std::string_view name) {
    writer.name("required");
    writer.beginArray();
    writer.string(name);
    writer.endArray();
}

/// What stands under a case's name.
template <EnumerationType E, class Payload>
void writeCaseValue(JsonWriter& writer) {
    if constexpr (E::payload_name.empty()) {
        writeReferenceObject<Payload>(writer);
    } else {
        writer.beginObject();
        writer.name("properties");
        writer.beginObject();
        writer.name(E::payload_name);
        writeReferenceObject<Payload>(writer);
        writer.endObject();
        writeRequired(writer, E::payload_name);
        writeMember(writer, "type", "object");
        writer.endObject();
    }
}

/// The schema that no value meets.
inline void writeNothing(JsonWriter& writer) {
    writer.boolean(false);
}

inline bool contains(std::span<const std::string_view> names, std::string_view name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

/// Exactly one of `cases`. A document may not name the other cases either, because a reader knows them.
template <EnumerationType E>
void writeCases(JsonWriter& writer, std::span<const std::string_view> cases) {
    writer.name("oneOf");
    writer.beginArray();
    for (const auto name : cases) {
        writer.beginObject();
        // Validators that are strict take what is required for a slip unless it is declared beside it.
        writer.name("properties");
        writer.beginObject();
        writer.name(name);
        writer.boolean(true);
        writer.endObject();
        writeRequired(writer, name);
        writer.endObject();
    }
    writer.endArray();
    NamedSchemas properties;
    E::forEachCase([&]<class EachCase>(EachCase) {
        properties.emplace(EachCase::name, contains(cases, EachCase::name)
                                               ? writeCaseValue<E, typename EachCase::Payload>
                                               : writeNothing);
    });
    writeSchemas(writer, "properties", properties);
}

template <class T>
void writeBody(JsonWriter& writer) {
    if constexpr (EnumerationType<T>) {
        writeCases<T>(writer, T::case_names);
    } else {
        writeProperties<T>(writer);
    }
}

template <class T>
void writeDefinition(JsonWriter& writer) {
    writer.beginObject();
    writeMember(writer, "description", meaningOf<T>());
    writeBody<T>(writer);
    writeMember(writer, "type", "object");
    writer.endObject();
}

template <class T>
void addDefinitions(NamedSchemas& definitions);

/// What a record's fields, or an enumeration's `cases`, refer to.
template <class T>
void addReferred(NamedSchemas& definitions, [[maybe_unused]] std::span<const std::string_view> cases) {
    if constexpr (EnumerationType<T>) {
        T::forEachCase([&]<class EachCase>(EachCase) {
            if (!contains(cases, EachCase::name)) return;
            addDefinitions<typename EachCase::Payload>(definitions);
        });
    } else {
        forEachField<T>([&]<class Value>(const Field<T, Value>&) { addDefinitions<Value>(definitions); });
    }
}

template <class T>
std::span<const std::string_view> allCases() {
    if constexpr (EnumerationType<T>) {
        return T::case_names;
    } else {
        return {};
    }
}

template <class T>
void addDefinitions(NamedSchemas& definitions) {
    if constexpr (IsOptional<T>::value || IsVector<T>::value) {
        addDefinitions<typename T::value_type>(definitions);
    } else if constexpr (is_defined<T>) {
        if (definitions.emplace(typeName<T>(), writeDefinition<T>).second)
            addReferred<T>(definitions, allCases<T>());
    }
}

template <class T>
void writeExamples(JsonWriter& writer, [[maybe_unused]] std::span<const std::string_view> cases) {
    writer.name("examples");
    writer.beginArray();
    for (const auto& each : brindle::examplesOf<T>()) {
        if constexpr (EnumerationType<T>) {
            if (!contains(cases, T::case_names[each.index()])) continue;
        }
        encode(writer, each);
    }
    writer.endArray();
}

template <class T, class WriteBody>
std::string document(const SchemaTitle& about, std::span<const std::string_view> cases,
                     const WriteBody& writeItsBody) {
    NamedSchemas definitions;
    addReferred<T>(definitions, cases);
    JsonWriter writer(JsonStyle::pretty);
    writer.beginObject();
    writeSchemas(writer, "$defs", definitions);
    writeMember(writer, "$id", about.id);
    writeMember(writer, "$schema", "https://json-schema.org/draft/2020-12/schema");
    writeMember(writer, "description", about.meaning);
    writeExamples<T>(writer, cases);
    writeItsBody(writer);
    writeMember(writer, "title", about.title);
    writeMember(writer, "type", "object");
    writer.endObject();
    return writer.finish();
}

}  // namespace record

/// The JSON Schema of an enumeration of which only `cases` occur.
template <EnumerationType E>
std::string schemaOf(const SchemaTitle& about, std::span<const std::string_view> cases) {
    return record::document<E>(about, cases,
                               [&](JsonWriter& writer) { record::writeCases<E>(writer, cases); });
}

/// The JSON Schema of a record or enumeration.
template <class T>
std::string schemaOf(const SchemaTitle& about) {
    return record::document<T>(about, record::allCases<T>(), record::writeBody<T>);
}

/// The fields of a record as a Markdown table, in the order of their declaration.
template <RecordType R>
std::string fieldTable() {
    std::string table = "| field | type | presence | meaning |\n| --- | --- | --- | --- |\n";
    forEachField<R>([&]<class Value>(const Field<R, Value>& each) {
        table.append("| `").append(each.name).append("` | ").append(record::jsonTypeName<Value>());
        table.append(record::IsOptional<Value>::value ? " | optional | " : " | always | ");
        table.append(each.meaning).append(" |\n");
    });
    return table;
}

}  // namespace brindle
