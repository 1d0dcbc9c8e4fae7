#include "tvhost/notification_screen.h"

#include <algorithm>

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

void Screen::Show(const Record &record)
{
    m_shown[record.itemId] = record;
    while (m_shown.size() > kMaxOnScreen)
        m_shown.erase(m_shown.begin());
}

bool Screen::Close(const std::string &appId, int itemId)
{
    auto it = m_shown.find(itemId);
    if (it == m_shown.end() || it->second.appId.value_or("") != appId)
        return false;
    m_shown.erase(it);
    return true;
}

void Screen::TakeDown(int itemId)
{
    m_shown.erase(itemId);
}

void Screen::Clear()
{
    m_shown.clear();
}

std::vector<Record> Screen::Records() const
{
    std::vector<Record> out;
    for (const auto &kv : m_shown)
        out.push_back(kv.second);
    return out;
}

std::string Screen::CannotDeliver(int itemId, bool bButton, int buttonIndex) const
{
    auto it = m_shown.find(itemId);
    if (it == m_shown.end())
        return NotOnScreenText(itemId, Records());
    const int nButtons = it->second.buttonCount;
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

std::string RenderClosed(const std::string &appId, int itemId)
{
    return "(" + OneLine(appId, kMaxAppIdWidth) + " #" + std::to_string(itemId) + " closed)\n";
}

} // namespace notifications
} // namespace tvhost
