#include "tk/message.h"

#include <algorithm>
#include <utility>

#include "tk/names.h"

namespace tk {

message::message() = default;
message::message(const message& other) = default;
message::message(message&& other) noexcept = default;
message& message::operator=(const message& other) = default;
message& message::operator=(message&& other) noexcept = default;
message::~message() = default;

message::message(std::string_view flat) {
    (void)parse(flat, *this);  // a malformed text leaves the message empty, as promised
}

bool message::Field::operator==(const Field& other) const {
    return id == other.id && value == other.value;
}

bool message::operator==(const message& other) const {
    return content == other.content;
}

const message::Field* message::find(std::uint32_t id) const {
    for (const Field& field : content)
        if (field.id == id) return &field;
    return nullptr;
}

template <typename T>
const T* message::read(std::uint32_t id) const {
    const Field* field = find(id);
    return field ? std::get_if<T>(&field->value) : nullptr;
}

template <typename T>
T& message::reference(std::uint32_t id) {
    for (Field& field : content) {
        if (field.id != id) continue;
        if (T* value = std::get_if<T>(&field.value)) return *value;
        return field.value.emplace<T>();
    }
    content.push_back({id, T{}});
    return *std::get_if<T>(&content.back().value);
}

template <typename T>
void message::put(std::uint32_t id, T value) {
    reference<T>(id) = std::move(value);
}

std::uint32_t message::get_u32(std::uint32_t id, std::uint32_t absent) const {
    const auto* value = read<std::uint32_t>(id);
    return value ? *value : absent;
}

bool message::get_bool(std::uint32_t id, bool absent) const {
    const auto* value = read<bool>(id);
    return value ? *value : absent;
}

std::string message::get_string(std::uint32_t id, const std::string& absent) const {
    const auto* value = read<std::string>(id);
    return value ? *value : absent;
}

std::uint32_t message::get_be32(std::uint32_t id, std::uint32_t absent) const {
    const auto* value = read<Be32>(id);
    return value ? value->value : absent;
}

std::uint64_t message::get_u64(std::uint32_t id, std::uint64_t absent) const {
    const auto* value = read<std::uint64_t>(id);
    return value ? *value : absent;
}

const std::vector<std::uint32_t>& message::get_u32_array(std::uint32_t id) const& {
    static const std::vector<std::uint32_t> none;
    const auto* value = read<std::vector<std::uint32_t>>(id);
    return value ? *value : none;
}

const std::vector<message>& message::get_message_array(std::uint32_t id) const& {
    static const std::vector<message> none;
    const auto* value = read<std::vector<message>>(id);
    return value ? *value : none;
}

std::vector<std::uint32_t> message::get_u32_array(std::uint32_t id) && {
    return std::as_const(*this).get_u32_array(id);
}

std::vector<message> message::get_message_array(std::uint32_t id) && {
    return std::as_const(*this).get_message_array(id);
}

std::uint32_t& message::get_u32_ref(std::uint32_t id) {
    return reference<std::uint32_t>(id);
}
bool& message::get_bool_ref(std::uint32_t id) {
    return reference<bool>(id);
}
std::string& message::get_string_ref(std::uint32_t id) {
    return reference<std::string>(id);
}
std::uint32_t& message::get_be32_ref(std::uint32_t id) {
    return reference<Be32>(id).value;
}
std::uint64_t& message::get_u64_ref(std::uint32_t id) {
    return reference<std::uint64_t>(id);
}

std::vector<std::uint32_t>& message::get_u32_array_ref(std::uint32_t id) {
    return reference<std::vector<std::uint32_t>>(id);
}

std::vector<message>& message::get_message_array_ref(std::uint32_t id) {
    return reference<std::vector<message>>(id);
}

void message::reserve(std::size_t count) {
    content.reserve(std::min(count, fieldLimit));
}

void message::insert_u32(std::uint32_t id, std::uint32_t value) {
    put(id, value);
}
void message::insert_bool(std::uint32_t id, bool value) {
    put(id, value);
}
void message::insert_string(std::uint32_t id, std::string value) {
    put(id, std::move(value));
}
void message::insert_be32(std::uint32_t id, std::uint32_t value) {
    put(id, Be32{value});
}
void message::insert_u64(std::uint32_t id, std::uint64_t value) {
    put(id, value);
}

void message::insert_u32_array(std::uint32_t id, std::vector<std::uint32_t> value) {
    put(id, std::move(value));
}

void message::insert_message_array(std::uint32_t id, std::vector<message> value) {
    put(id, std::move(value));
}

void message::insert(const Field& field) {
    for (Field& existing : content) {
        if (existing.id != field.id) continue;
        existing.value = field.value;
        return;
    }
    content.push_back(field);
}

bool message::has(std::uint32_t id) const {
    return find(id) != nullptr;
}

bool message::has_array(std::uint32_t id) const {
    return read<std::vector<message>>(id) || read<std::vector<std::uint32_t>>(id);
}

std::size_t message::size_message_array(std::uint32_t id) const {
    return get_message_array(id).size();
}

void message::remove(std::uint32_t id) {
    std::erase_if(content, [id](const Field& field) { return field.id == id; });
}

bool message::empty() const {
    return content.empty();
}

std::vector<message::Field> message::fields() && {
    return std::move(content);
}

message errorMsg(std::uint32_t code, const std::string& text) {
    message error;
    error.insert_u32(field::errorCode, code);
    error.insert_string(field::errorText, text);
    return error;
}

bool isError(const message& reply, std::uint32_t* code, std::string* text) {
    if (!reply.has(field::errorCode)) return false;
    if (code) *code = reply.get_u32(field::errorCode);
    if (text) *text = reply.get_string(field::errorText);
    return true;
}

std::string getError(const message& reply) {
    return isError(reply) ? reply.get_string(field::errorText) : std::string();
}

}  // namespace tk
