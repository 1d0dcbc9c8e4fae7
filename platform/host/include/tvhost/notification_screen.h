// What the viewer of the host TV sees of the notification service: the
// notifications on screen and their drawing on a terminal. Records in, text
// out: nothing here posts, delivers or prints.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tvhost {
namespace notifications {

// A copy of one posted notification_data_t. Text fields are empty optionals
// where the record held a null pointer.
struct Record {
    // The buttons a notification record holds at most (its label and icon arrays).
    static constexpr int kMaxButtons = 3;

    int version = 0;
    int popup = 0;
    int style = 0;
    std::optional<std::string> appId;
    int itemId = 0;
    std::array<int, 3> reserved1{};
    std::optional<std::string> title;
    std::optional<std::string> body;
    std::optional<std::string> subText;
    std::array<int, 3> reserved2{};
    int buttonCount = 0;
    int needAnswer = 0;
    std::array<std::optional<std::string>, kMaxButtons> buttonLabel;
    std::array<std::optional<std::string>, kMaxButtons> buttonIcon;

    // The buttons it shows: its count, within what the record holds.
    int Buttons() const { return buttonCount < 0 ? 0 : buttonCount > kMaxButtons ? kMaxButtons : buttonCount; }
};

// One posted notification kept in a single allocation: its numbers and every
// text in one block, shared by reference count, so that keeping a posted
// record (in the history and on the screen at once) costs one allocation and
// no copy of each text.
class PackedRecord {
public:
    // The texts of a record in the order of Record's fields: app id, title,
    // body, sub-text, the three button labels, the three button icons.
    static constexpr size_t kTexts = 10;
    struct Numbers {
        int version = 0, popup = 0, style = 0, itemId = 0, buttonCount = 0, needAnswer = 0;
        std::array<int, 3> reserved1{}, reserved2{};
    };
    struct Source {
        Numbers numbers;
        std::array<std::optional<std::string_view>, kTexts> texts;
    };
    static PackedRecord Pack(const Source &source);
    static PackedRecord Pack(const Record &record);

    PackedRecord() = default;
    PackedRecord(const PackedRecord &other);
    PackedRecord(PackedRecord &&other) noexcept : m_block(other.m_block) { other.m_block = nullptr; }
    PackedRecord &operator=(PackedRecord other) noexcept
    {
        std::swap(m_block, other.m_block);
        return *this;
    }
    ~PackedRecord();

    int ItemId() const;
    int ButtonCount() const;
    std::optional<std::string_view> AppId() const { return Text(0); }
    Record Unpack() const;

private:
    struct Block;
    std::optional<std::string_view> Text(size_t i) const;
    Block *m_block = nullptr;
};

// The notifications on screen, one per item id: a later post of an item id
// replaces the one shown. The screen holds at most kMaxOnScreen; a post
// beyond that pushes the lowest item id (the oldest, as the service counts
// up) off it.
class Screen {
public:
    static constexpr size_t kMaxOnScreen = 100;

    void Show(PackedRecord record);
    void Show(const Record &record) { Show(PackedRecord::Pack(record)); }
    // Takes down item itemId of appId; false, and nothing changes, when no
    // such one is shown.
    bool Close(const std::string &appId, int itemId);
    // The viewer answered item itemId or let it time out: it leaves the screen.
    void TakeDown(int itemId);
    void Clear();
    // In item id order.
    std::vector<Record> Records() const;
    // Why the viewer cannot press buttonIndex of item itemId (bButton false:
    // let it time out), for a person; empty when they can.
    std::string CannotDeliver(int itemId, bool bButton, int buttonIndex) const;

private:
    // In item id order; at most kMaxOnScreen + 1, so it never reallocates once grown.
    std::vector<PackedRecord> m_shown;
};

// "2 on screen: #1, #3", a few of many with their count ("100 on screen: #1,
// #2, #3 ... #98, #99, #100"), or "nothing is on screen".
std::string OnScreenText(const std::vector<Record> &records);
// "no pop-up #N on screen (...)", naming what is there instead.
std::string NotOnScreenText(int itemId, const std::vector<Record> &records);

// The pop-up as the viewer sees it: a box of title, body, sub-text and
// buttons, at most 64 columns wide.
std::string Render(const Record &record);
// The record's texts as Render draws them, for a view other than the
// terminal's: control and bidirectional characters dropped, the title, body
// and sub-text cut to the box's lines (a line feed between them), a label
// and the app id to one line, each cut text ending with an ellipsis. Icon
// paths longer than any path are dropped.
Record AsDrawn(const Record &record);
// The line drawn when a pop-up is taken down.
std::string RenderClosed(const std::string &appId, int itemId);

} // namespace notifications
} // namespace tvhost
