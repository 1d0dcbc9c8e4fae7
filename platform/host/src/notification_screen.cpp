#include "tvhost/notification_screen.h"

#include <algorithm>

namespace tvhost {
namespace notifications {
namespace {

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

// Splits UTF-8 text into code points (bytes of a broken sequence stand alone).
std::vector<std::pair<std::string, int>> Glyphs(const std::string &text)
{
    std::vector<std::pair<std::string, int>> out;
    size_t i = 0;
    while (i < text.size()) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        size_t n = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 1;
        if (i + n > text.size())
            n = 1;
        unsigned long cp = n == 1 ? c : (c & (0x7F >> n));
        for (size_t k = 1; k < n; ++k) {
            unsigned char cc = static_cast<unsigned char>(text[i + k]);
            if ((cc & 0xC0) != 0x80) {
                n = 1;
                cp = c;
                break;
            }
            cp = (cp << 6) | (cc & 0x3F);
        }
        std::string g = text.substr(i, n);
        if (n == 1 && (c < 0x20 || c == 0x7F))
            g = " ";
        else if (n == 1 && c >= 0x80)
            g = "?";
        out.emplace_back(g, n == 1 ? 1 : CodePointWidth(cp));
        i += n;
    }
    return out;
}

int Width(const std::string &text)
{
    int w = 0;
    for (const auto &g : Glyphs(text))
        w += g.second;
    return w;
}

// Word-wraps one paragraph to nWidth columns; over-long words are cut.
void Wrap(const std::string &paragraph, int nWidth, std::vector<std::string> &lines)
{
    std::string line;
    int nLine = 0;
    std::string word;
    int nWord = 0;
    auto flushWord = [&] {
        if (word.empty())
            return;
        if (nLine > 0 && nLine + 1 + nWord > nWidth) {
            lines.push_back(line);
            line.clear();
            nLine = 0;
        }
        if (nLine > 0) {
            line += ' ';
            ++nLine;
        }
        line += word;
        nLine += nWord;
        word.clear();
        nWord = 0;
    };
    for (const auto &g : Glyphs(paragraph)) {
        if (g.first == " ") {
            flushWord();
            continue;
        }
        if (nWord + g.second > nWidth) {
            flushWord();
            if (nLine > 0) {
                lines.push_back(line);
                line.clear();
                nLine = 0;
            }
        }
        word += g.first;
        nWord += g.second;
    }
    flushWord();
    lines.push_back(line);
}

std::vector<std::string> WrapText(const std::string &text, int nWidth)
{
    std::vector<std::string> lines;
    size_t start = 0;
    for (;;) {
        size_t nl = text.find('\n', start);
        Wrap(text.substr(start, nl == std::string::npos ? std::string::npos : nl - start), nWidth, lines);
        if (nl == std::string::npos)
            break;
        start = nl + 1;
    }
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
    constexpr int kMin = 36;
    constexpr int kMax = 64;
    const std::string title = r.title.value_or("");
    const std::string body = r.body.value_or("");
    const std::string sub = r.subText.value_or("");
    std::vector<std::string> buttons;
    for (int i = 0; i < r.buttonCount && i < static_cast<int>(r.buttonLabel.size()); ++i)
        buttons.push_back("[ " + r.buttonLabel[i].value_or("") + " ]");
    std::string caption = " " + r.appId.value_or("?") + " #" + std::to_string(r.itemId) + " ";

    int nWidth = kMin;
    for (const std::string *t : {&title, &body, &sub})
        for (const auto &line : WrapText(*t, kMax))
            nWidth = std::max(nWidth, Width(line));
    std::string buttonRow;
    for (const auto &b : buttons)
        buttonRow += (buttonRow.empty() ? "" : "  ") + b;
    nWidth = std::min(kMax, std::max(nWidth, Width(buttonRow)));
    nWidth = std::max(nWidth, Width(caption) + 1);

    std::string out;
    auto row = [&](const std::string &text) {
        out += "│ " + text + std::string(static_cast<size_t>(std::max(0, nWidth - Width(text))), ' ') + " │\n";
    };
    out += "┌─" + caption + Repeat("─", nWidth + 1 - Width(caption)) + "┐\n";
    for (const auto &line : WrapText(title, nWidth))
        row(line);
    out += "├" + Repeat("─", nWidth + 2) + "┤\n";
    for (const auto &line : WrapText(body, nWidth))
        row(line);
    if (!sub.empty())
        for (const auto &line : WrapText(sub, nWidth))
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
    return "(" + appId + " #" + std::to_string(itemId) + " closed)\n";
}

} // namespace notifications
} // namespace tvhost
