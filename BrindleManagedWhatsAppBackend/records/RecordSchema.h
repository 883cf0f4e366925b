#pragma once

#include <string>
#include <string_view>

#include "records/Record.h"

/// JSON Schemas (draft 2020-12) and reference tables of records, made from the records' own lists of fields.
namespace brindle {

namespace record {

template <class T>
void writeSchema(JsonWriter& writer, std::string_view description);

template <RecordType R>
void writeProperties(JsonWriter& writer) {
    writer.name("properties");
    writer.beginObject();
    forEachFieldByName<R>([&]<class Value>(const Field<R, Value>& each) {
        writer.name(each.name);
        if constexpr (IsOptional<Value>::value) {
            writeSchema<typename Value::value_type>(writer, each.meaning);
        } else {
            writeSchema<Value>(writer, each.meaning);
        }
    });
    writer.endObject();
    writer.name("required");
    writer.beginArray();
    forEachFieldByName<R>([&]<class Value>(const Field<R, Value>& each) {
        if constexpr (!IsOptional<Value>::value) writer.string(each.name);
    });
    writer.endArray();
}

/// An object that must have the member `name`; `writeMember` gives the member's schema.
template <class WriteMember>
void writeObjectWithMember(JsonWriter& writer, std::string_view name, const WriteMember& writeMember) {
    writer.beginObject();
    writer.name("properties");
    writer.beginObject();
    writer.name(name);
    writeMember();
    writer.endObject();
    writer.name("required");
    writer.beginArray();
    writer.string(name);
    writer.endArray();
    writer.name("type");
    writer.string("object");
    writer.endObject();
}

template <EnumerationType E>
void writeCases(JsonWriter& writer) {
    writer.name("oneOf");
    writer.beginArray();
    E::forEachCase([&]<class EachCase>(EachCase) {
        using Payload = typename EachCase::Payload;
        writeObjectWithMember(writer, EachCase::name, [&] {
            if constexpr (E::payload_name.empty()) {
                writeSchema<Payload>(writer, "");
            } else {
                writeObjectWithMember(writer, E::payload_name, [&] { writeSchema<Payload>(writer, ""); });
            }
        });
    });
    writer.endArray();
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

template <class T>
void writeSchema(JsonWriter& writer, std::string_view description) {
    writer.beginObject();
    if (!description.empty()) {
        writer.name("description");
        writer.string(description);
    }
    if constexpr (IsVector<T>::value) {
        writer.name("items");
        writeSchema<typename T::value_type>(writer, "");
    } else if constexpr (EnumerationType<T>) {
        writeCases<T>(writer);
    } else if constexpr (RecordType<T>) {
        writeProperties<T>(writer);
    }
    writer.name("type");
    writer.string(jsonTypeName<T>());
    writer.endObject();
}

}  // namespace record

/// The JSON Schema of a record or enumeration.
template <class T>
std::string schemaOf() {
    JsonWriter writer(JsonStyle::pretty);
    record::writeSchema<T>(writer, "");
    return writer.finish();
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
