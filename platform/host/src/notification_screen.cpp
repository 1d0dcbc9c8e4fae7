#include "tvhost/notification_screen.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

#include "terminal_text.h"

namespace tvhost {
namespace notifications {
namespace {

// The box: between 36 and 64 columns of text, each part at most so many
// lines. Whatever a record holds, the drawing stays this size and reads no
// further into a text than it draws.
constexpr int kMinWidth = 36;
constexpr int kMaxWidth = 64;
constexpr int kMaxAppIdWidth = 40;
constexpr size_t kTitleLines = 4;
constexpr size_t kBodyLines = 16;
constexpr size_t kSubTextLines = 4;
const char kEllipsis[] = "\u2026";

// Terminal columns of one code point: East Asian wide characters take two.
int CodePointWidth(unsigned long cp)
{
    if (cp >= 0x300 && cp <= 0x36F)
        return 0;
    if ((cp >= 0x1100 && cp <= 0x115F) || (cp >= 0x2E80 && cp <= 0xA4CF) || (cp >= 0xAC00 && cp <= 0xD7A3) ||
        (cp >= 0xF900 && cp <= 0xFAFF) || (cp >= 0xFE30 && cp <= 0xFE4F) || (cp >= 0xFF00 && cp <= 0xFF60) ||
        (cp >= 0xFFE0 && cp <= 0xFFE6) || (cp >= 0x1F300 && cp <= 0x1FAFF) || (cp >= 0x20000 && cp <= 0x3FFFD))
        return 2;
    return 1;
}

// One character as drawn: its bytes (in the text, or a replacement) and
// columns. A control character is a blank, a line feed ends a line, a C1
// or bidirectional control is not drawn, a broken UTF-8 byte is a '?'.
struct Glyph {
    enum Kind { kText, kBlank, kLineFeed, kNothing } kind;
    const char *p;
    size_t n;
    int width;
};

Glyph NextGlyph(const std::string &text, size_t &i)
{
    const text::Unit u = text::Decode(text.data() + i, text.size() - i);
    const char *p = text.data() + i;
    i += u.n;
    if (u.bBroken)
        return {Glyph::kText, "?", 1, 1};
    if (u.cp == '\n')
        return {Glyph::kLineFeed, " ", 1, 1};
    if (u.cp <= 0x20 || u.cp == 0x7F)
        return {Glyph::kBlank, " ", 1, 1};
    if (text::IsControl(u.cp) || text::IsBidiControl(u.cp))
        return {Glyph::kNothing, "", 0, 0};
    return {Glyph::kText, p, u.n, CodePointWidth(u.cp)};
}

int Width(const std::string &text)
{
    int w = 0;
    for (size_t i = 0; i < text.size();)
        w += NextGlyph(text, i).width;
    return w;
}

// Ends a cut text: its last characters give way to an ellipsis within nWidth.
void EndWithEllipsis(std::string &line, int nWidth)
{
    while (!line.empty() && Width(line) + 1 > nWidth) {
        size_t n = line.size() - 1;
        while (n > 0 && (static_cast<unsigned char>(line[n]) & 0xC0) == 0x80)
            --n;
        line.resize(n);
    }
    line += kEllipsis;
}

// One line of text, a blank for every control or line feed, cut with an
// ellipsis past nWidth columns.
std::string OneLine(const std::string &text, int nWidth)
{
    std::string out;
    int nOut = 0;
    for (size_t i = 0; i < text.size();) {
        const Glyph g = NextGlyph(text, i);
        if (nOut + g.width > nWidth) {
            EndWithEllipsis(out, nWidth);
            break;
        }
        out.append(g.p, g.n);
        nOut += g.width;
    }
    return out;
}

// Word-wraps text to nWidth columns, a line feed starting a new line;
// over-long words are cut. A text that needs more than nMaxLines lines ends
// with an ellipsis on the last of them.
std::vector<std::string> WrapText(const std::string &text, int nWidth, size_t nMaxLines)
{
    std::vector<std::string> lines;
    std::string line, word;
    int nLine = 0, nWord = 0;
    bool bCut = false;
    auto endLine = [&] {
        if (lines.size() == nMaxLines) {
            bCut = true;
            return;
        }
        lines.push_back(line);
        line.clear();
        nLine = 0;
    };
    auto flushWord = [&] {
        if (word.empty())
            return;
        if (nLine > 0 && nLine + 1 + nWord > nWidth)
            endLine();
        if (bCut)
            return;
        if (nLine > 0) {
            line += ' ';
            ++nLine;
        }
        line += word;
        nLine += nWord;
        word.clear();
        nWord = 0;
    };
    for (size_t i = 0; i < text.size() && !bCut;) {
        const Glyph g = NextGlyph(text, i);
        if (g.kind == Glyph::kNothing)
            continue;
        if (g.kind != Glyph::kText) {
            flushWord();
            if (g.kind == Glyph::kLineFeed && !bCut)
                endLine();
            continue;
        }
        if (nWord + g.width > nWidth) {
            flushWord();
            if (nLine > 0 && !bCut)
                endLine();
        }
        word.append(g.p, g.n);
        nWord += g.width;
    }
    flushWord();
    if (!bCut)
        endLine();
    if (bCut)
        EndWithEllipsis(lines.back(), nWidth);
    return lines;
}

std::string Repeat(const char *s, int n)
{
    std::string out;
    for (int i = 0; i < n; ++i)
        out += s;
    return out;
}

} // namespace

// The block: the numbers, where each text begins in the characters after
// it (text i ends where i + 1 begins), which texts are there at all.
struct PackedRecord::Block {
    std::atomic<unsigned> nRefs{1};
    Numbers numbers;
    uint32_t nPresent = 0;
    std::array<size_t, kTexts + 1> offsets{};
    char *Chars() { return reinterpret_cast<char *>(this + 1); }
};

PackedRecord PackedRecord::Pack(const Source &source)
{
    size_t nChars = 0;
    for (const auto &text : source.texts)
        nChars += text ? text->size() : 0;
    void *p = ::operator new(sizeof(Block) + nChars);
    Block *block = new (p) Block;
    block->numbers = source.numbers;
    size_t nAt = 0;
    for (size_t i = 0; i < kTexts; ++i) {
        block->offsets[i] = nAt;
        if (!source.texts[i])
            continue;
        block->nPresent |= 1u << i;
        if (!source.texts[i]->empty())
            std::memcpy(block->Chars() + nAt, source.texts[i]->data(), source.texts[i]->size());
        nAt += source.texts[i]->size();
    }
    block->offsets[kTexts] = nAt;
    PackedRecord packed;
    packed.m_block = block;
    return packed;
}

PackedRecord PackedRecord::Pack(const Record &r)
{
    Source s;
    s.numbers = {r.version, r.popup, r.style, r.itemId, r.buttonCount, r.needAnswer, r.reserved1, r.reserved2};
    const std::optional<std::string> *texts[kTexts] = {
        &r.appId,          &r.title,          &r.body,          &r.subText,       &r.buttonLabel[0],
        &r.buttonLabel[1], &r.buttonLabel[2], &r.buttonIcon[0], &r.buttonIcon[1], &r.buttonIcon[2]};
    for (size_t i = 0; i < kTexts; ++i)
        if (*texts[i])
            s.texts[i] = std::string_view(**texts[i]);
    return Pack(s);
}

PackedRecord::PackedRecord(const PackedRecord &other) : m_block(other.m_block)
{
    if (m_block)
        m_block->nRefs.fetch_add(1, std::memory_order_relaxed);
}

PackedRecord::~PackedRecord()
{
    if (m_block && m_block->nRefs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        m_block->~Block();
        ::operator delete(m_block);
    }
}

int PackedRecord::ItemId() const
{
    return m_block ? m_block->numbers.itemId : 0;
}

int PackedRecord::ButtonCount() const
{
    return m_block ? m_block->numbers.buttonCount : 0;
}

std::optional<std::string_view> PackedRecord::Text(size_t i) const
{
    if (!m_block || !(m_block->nPresent & (1u << i)))
        return std::nullopt;
    return std::string_view(m_block->Chars() + m_block->offsets[i], m_block->offsets[i + 1] - m_block->offsets[i]);
}

Record PackedRecord::Unpack() const
{
    Record r;
    if (!m_block)
        return r;
    const Numbers &n = m_block->numbers;
    r.version = n.version;
    r.popup = n.popup;
    r.style = n.style;
    r.itemId = n.itemId;
    r.buttonCount = n.buttonCount;
    r.needAnswer = n.needAnswer;
    r.reserved1 = n.reserved1;
    r.reserved2 = n.reserved2;
    std::optional<std::string> *texts[kTexts] = {
        &r.appId,          &r.title,          &r.body,          &r.subText,       &r.buttonLabel[0],
        &r.buttonLabel[1], &r.buttonLabel[2], &r.buttonIcon[0], &r.buttonIcon[1], &r.buttonIcon[2]};
    for (size_t i = 0; i < kTexts; ++i)
        if (auto text = Text(i))
            texts[i]->emplace(*text);
    return r;
}

namespace {

std::vector<PackedRecord>::iterator FindItem(std::vector<PackedRecord> &shown, int itemId)
{
    return std::lower_bound(shown.begin(), shown.end(), itemId,
                            [](const PackedRecord &r, int id) { return r.ItemId() < id; });
}

} // namespace

void Screen::Show(PackedRecord record)
{
    if (m_shown.capacity() < kMaxOnScreen + 1)
        m_shown.reserve(kMaxOnScreen + 1);
    auto it = FindItem(m_shown, record.ItemId());
    if (it != m_shown.end() && it->ItemId() == record.ItemId())
        *it = std::move(record);
    else
        m_shown.insert(it, std::move(record));
    if (m_shown.size() > kMaxOnScreen)
        m_shown.erase(m_shown.begin());
}

bool Screen::Close(const std::string &appId, int itemId)
{
    auto it = FindItem(m_shown, itemId);
    if (it == m_shown.end() || it->ItemId() != itemId || it->AppId().value_or("") != appId)
        return false;
    m_shown.erase(it);
    return true;
}

void Screen::TakeDown(int itemId)
{
    auto it = FindItem(m_shown, itemId);
    if (it != m_shown.end() && it->ItemId() == itemId)
        m_shown.erase(it);
}

void Screen::Clear()
{
    m_shown.clear();
}

std::vector<Record> Screen::Records() const
{
    std::vector<Record> out;
    out.reserve(m_shown.size());
    for (const auto &r : m_shown)
        out.push_back(r.Unpack());
    return out;
}

std::string Screen::CannotDeliver(int itemId, bool bButton, int buttonIndex) const
{
    auto it = std::lower_bound(m_shown.begin(), m_shown.end(), itemId,
                               [](const PackedRecord &r, int id) { return r.ItemId() < id; });
    if (it == m_shown.end() || it->ItemId() != itemId)
        return NotOnScreenText(itemId, Records());
    const int nButtons = it->ButtonCount();
    if (!bButton || (buttonIndex >= 0 && buttonIndex < nButtons))
        return "";
    return "pop-up #" + std::to_string(itemId) +
           (nButtons == 0
                ? std::string(" has no buttons")
                : " has " + std::to_string(nButtons) +
                      (nButtons == 1 ? " button: press 0" : " buttons: press 0 to " + std::to_string(nButtons - 1)));
}

std::string OnScreenText(const std::vector<Record> &records)
{
    if (records.empty())
        return "nothing is on screen";
    // The first and the last three: enough to see the range without a wall of numbers.
    constexpr size_t kEnds = 3;
    std::string list = std::to_string(records.size()) + " on screen: ";
    for (size_t i = 0; i < records.size(); ++i) {
        if (records.size() > 2 * kEnds && i == kEnds) {
            list += " ...";
            i = records.size() - kEnds;
        } else if (i > 0) {
            list += ",";
        }
        list += (i > 0 ? " #" : "#") + std::to_string(records[i].itemId);
    }
    return list;
}

std::string NotOnScreenText(int itemId, const std::vector<Record> &records)
{
    return "no pop-up #" + std::to_string(itemId) + " on screen (" + OnScreenText(records) + ")";
}

std::string Render(const Record &r)
{
    struct Part {
        std::string text;
        size_t nMaxLines;
    };
    const Part title{r.title.value_or(""), kTitleLines}, body{r.body.value_or(""), kBodyLines},
        sub{r.subText.value_or(""), kSubTextLines};
    std::vector<std::string> buttons;
    for (int i = 0; i < r.buttonCount && i < static_cast<int>(r.buttonLabel.size()); ++i)
        buttons.push_back("[ " + OneLine(r.buttonLabel[i].value_or(""), kMaxWidth - 4) + " ]");
    std::string caption = " " + OneLine(r.appId.value_or("?"), kMaxAppIdWidth) + " #" + std::to_string(r.itemId) + " ";

    int nWidth = kMinWidth;
    for (const Part *p : {&title, &body, &sub})
        for (const auto &line : WrapText(p->text, kMaxWidth, p->nMaxLines))
            nWidth = std::max(nWidth, Width(line));
    std::string buttonRow;
    for (const auto &b : buttons)
        buttonRow += (buttonRow.empty() ? "" : "  ") + b;
    nWidth = std::min(kMaxWidth, std::max(nWidth, Width(buttonRow)));
    nWidth = std::max(nWidth, Width(caption) + 1);

    std::string out;
    auto row = [&](const std::string &text) {
        out += "│ " + text + std::string(static_cast<size_t>(std::max(0, nWidth - Width(text))), ' ') + " │\n";
    };
    out += "┌─" + caption + Repeat("─", nWidth + 1 - Width(caption)) + "┐\n";
    for (const auto &line : WrapText(title.text, nWidth, title.nMaxLines))
        row(line);
    out += "├" + Repeat("─", nWidth + 2) + "┤\n";
    for (const auto &line : WrapText(body.text, nWidth, body.nMaxLines))
        row(line);
    if (!sub.text.empty())
        for (const auto &line : WrapText(sub.text, nWidth, sub.nMaxLines))
            row(line);
    if (!buttons.empty()) {
        row("");
        std::string line;
        for (const auto &b : buttons) {
            if (!line.empty() && Width(line) + 2 + Width(b) > nWidth) {
                row(line);
                line.clear();
            }
            line += (line.empty() ? "" : "  ") + b;
        }
        row(line);
    }
    out += "└" + Repeat("─", nWidth + 2) + "┘\n";
    return out;
}

Record AsDrawn(const Record &r)
{
    auto lines = [](const std::optional<std::string> &text, size_t nMaxLines) -> std::optional<std::string> {
        if (!text)
            return std::nullopt;
        std::string out;
        for (const auto &line : WrapText(*text, kMaxWidth, nMaxLines))
            out += (out.empty() ? "" : "\n") + line;
        return out;
    };
    auto oneLine = [](const std::optional<std::string> &text, int nWidth) -> std::optional<std::string> {
        return text ? std::optional<std::string>(OneLine(*text, nWidth)) : std::nullopt;
    };
    Record out = r;
    out.appId = oneLine(r.appId, kMaxAppIdWidth);
    out.title = lines(r.title, kTitleLines);
    out.body = lines(r.body, kBodyLines);
    out.subText = lines(r.subText, kSubTextLines);
    for (size_t i = 0; i < out.buttonLabel.size(); ++i) {
        out.buttonLabel[i] = oneLine(r.buttonLabel[i], kMaxWidth - 4);
        if (out.buttonIcon[i] && out.buttonIcon[i]->size() > 4096)
            out.buttonIcon[i].reset();
    }
    return out;
}

std::string RenderClosed(const std::string &appId, int itemId)
{
    return "(" + OneLine(appId, kMaxAppIdWidth) + " #" + std::to_string(itemId) + " closed)\n";
}

} // namespace notifications
} // namespace tvhost
