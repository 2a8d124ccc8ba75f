#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tk {

class message;

/// The address of a handler on the bus: a program's number, then the program's own numbering.
using Path = std::vector<std::uint32_t>;

/// An IPv4 address as a field value.
/// Byte order: network, in the variable as on the wire.
struct Be32 {
    std::uint32_t value = 0;
    bool operator==(const Be32&) const = default;
};

/// The types of fields, with their numbers on the wire.
enum class FieldType : std::uint8_t {
    u32 = 1,
    boolean = 2,
    string = 3,
    be32 = 4,
    u64 = 5,
    u32Array = 6,
    messageArray = 7,
};

/// A typed record of the message bus: an ordered set of fields, each known by a 32-bit id.
/// A value: copies are deep, equality is by content and order. Order of insertion is kept on the wire.
/// A read names the type; a field of another type reads as absent.
class message {
public:
    struct Field;

    /// How deep messages may be nested. A deeper one would cost its sender the connection.
    static constexpr unsigned nestingLimit = 16;
    /// How many fields one message may have, so that the search for one of them stays cheap.
    static constexpr std::size_t fieldLimit = 1024;

    message();
    message(const message& other);
    message(message&& other) noexcept;
    message& operator=(const message& other);
    message& operator=(message&& other) noexcept;
    ~message();

    /// Builds a message from its flat form.
    /// Errors: an empty message when the form is malformed; parse() tells the difference.
    explicit message(std::string_view flat);

    /// Replaces `out` by the message in `flat`, which must end with its last byte.
    /// Errors: false for an exceeded bound, an unknown type, an id that appears twice, a bool above 1, more
    /// than fieldLimit fields in one message, or nesting beyond nestingLimit; `out` is then empty.
    [[nodiscard]] static bool parse(std::string_view flat, message& out);
    /// The flat form: each field as u32 id, u8 type, value.
    /// Byte order: little-endian, be32 values in network order.
    [[nodiscard]] std::string serialise() const;
    /// True when parse() accepts the flat form: no more fields and no deeper nesting than it allows.
    bool isParsable() const;
    /// Appends the flat form to `out`.
    void serialiseTo(std::string& out) const;

    /// Reads a field, or gives the default where it is absent.
    std::uint32_t get_u32(std::uint32_t id, std::uint32_t absent = 0) const;
    bool get_bool(std::uint32_t id, bool absent = false) const;
    std::string get_string(std::uint32_t id, const std::string& absent = {}) const;
    std::uint32_t get_be32(std::uint32_t id, std::uint32_t absent = 0) const;
    std::uint64_t get_u64(std::uint32_t id, std::uint64_t absent = 0) const;
    /// The array, empty where it is absent.
    /// Lifetime: until this message changes.
    const std::vector<std::uint32_t>& get_u32_array(std::uint32_t id) const&;
    const std::vector<message>& get_message_array(std::uint32_t id) const&;
    /// Of a temporary message: by value, so that a loop over the array keeps it alive.
    std::vector<std::uint32_t> get_u32_array(std::uint32_t id) &&;
    std::vector<message> get_message_array(std::uint32_t id) &&;

    /// A writable reference; an absent field, or one of another type, is first made with a zero value.
    /// Lifetime: until this message changes.
    std::uint32_t& get_u32_ref(std::uint32_t id);
    bool& get_bool_ref(std::uint32_t id);
    std::string& get_string_ref(std::uint32_t id);
    std::uint32_t& get_be32_ref(std::uint32_t id);
    std::uint64_t& get_u64_ref(std::uint32_t id);
    std::vector<std::uint32_t>& get_u32_array_ref(std::uint32_t id);
    std::vector<message>& get_message_array_ref(std::uint32_t id);

    /// Makes room for so many fields, at most fieldLimit: only saves time.
    void reserve(std::size_t count);
    /// Sets a field: a new one is appended, another is replaced where it stands.
    void insert_u32(std::uint32_t id, std::uint32_t value);
    void insert_bool(std::uint32_t id, bool value);
    void insert_string(std::uint32_t id, std::string value);
    void insert_be32(std::uint32_t id, std::uint32_t value);
    void insert_u64(std::uint32_t id, std::uint64_t value);
    void insert_u32_array(std::uint32_t id, std::vector<std::uint32_t> value);
    void insert_message_array(std::uint32_t id, std::vector<message> value);
    /// Sets a field from one of another message, whatever its type.
    void insert(const Field& field);

    /// True when the field is there, whatever its type.
    bool has(std::uint32_t id) const;
    /// True when a field of an array type is there, even an empty one.
    bool has_array(std::uint32_t id) const;
    /// The number of messages in a message array, 0 where it is absent.
    std::size_t size_message_array(std::uint32_t id) const;

    /// Drops a field; an absent one is no error.
    void remove(std::uint32_t id);
    /// True when there is no field at all.
    bool empty() const;
    /// All fields in order.
    /// Lifetime: until this message changes.
    const std::vector<Field>& fields() const& { return content; }
    std::vector<Field> fields() &&;

    bool operator==(const message& other) const;

private:
    class Reader;

    const Field* find(std::uint32_t id) const;
    template <typename T>
    const T* read(std::uint32_t id) const;
    template <typename T>
    T& reference(std::uint32_t id);
    template <typename T>
    void put(std::uint32_t id, T value);

    std::vector<Field> content;
};

/// One field of a message. The alternatives stand in the order of FieldType.
struct message::Field {
    using Value = std::variant<std::uint32_t, bool, std::string, Be32, std::uint64_t,
                               std::vector<std::uint32_t>, std::vector<message>>;
    std::uint32_t id = 0;
    Value value;

    /// The type that the value has on the wire.
    FieldType type() const { return static_cast<FieldType>(value.index() + 1); }
    bool operator==(const Field& other) const;
};

/// An error reply. `code` is one of tk::error, or the caller's own.
[[nodiscard]] message errorMsg(std::uint32_t code, const std::string& text);

/// True when `reply` is an error; then its code and text are stored where the pointers are not null.
[[nodiscard]] bool isError(const message& reply, std::uint32_t* code = nullptr, std::string* text = nullptr);

/// The text of an error reply, empty for any other message.
[[nodiscard]] std::string getError(const message& reply);

}  // namespace tk
