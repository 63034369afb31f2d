#pragma once

#include <json/json.h>

#include <memory>
#include <string>

namespace talvoem::test {

// C++ exceptions thrown anywhere in this process so far. The codec must turn
// bad input away before jsoncpp throws: on Android jsoncpp is built without
// exceptions and aborts at those points, so an exception the codec catches on
// the host is a crash on the device.
int exceptionsThrown();

// A jsoncpp tree from text, and the compact text of a tree (no line feed).
inline Json::Value jsonValue(const std::string& text) {
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Json::Value value;
    reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
    return value;
}
inline std::string compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

}  // namespace talvoem::test
