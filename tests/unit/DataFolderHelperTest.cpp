#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "DataFolderHelper.h"
#include "LogCapture.h"
#include "tvhost/tvhost.h"

namespace fs = std::filesystem;

namespace {

constexpr int kDebug = 3;
constexpr int kError = 6;

std::string DataFolder() { return tvhost::Root() + "/opt/usr/apps/org.kelvar.lumora/data"; }
std::string ShippedFolder() { return tvhost::Root() + "/usr/apps/org.kelvar.lumora/bin"; }

std::string ReadAll(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

void WriteScript(const std::string &path, const std::string &body)
{
    std::ofstream(path) << "#!/bin/sh\n" << body;
    chmod(path.c_str(), 0755);
}

// Puts a folder of wrappers first on PATH, before the host TV's own tools:
// each wrapper notes its command line, then runs the next tool of that name.
class ToolJournal {
public:
    ToolJournal()
    {
        m_dir = fs::temp_directory_path() / ("datafolder-tools-" + std::to_string(getpid()));
        fs::remove_all(m_dir);
        fs::create_directories(m_dir);
        m_journal = (m_dir / "journal").string();
        const char *path = std::getenv("PATH");
        m_savedPath = path ? path : "/usr/bin:/bin";
        const std::string rest = tvhost::Root() + "/usr/bin:" + m_savedPath;
        for (const char *tool : {"mkdir", "cp", "chmod", "chown", "chsmack"})
            WriteScript((m_dir / tool).string(), "echo \"$(basename \"$0\") $*\" >> '" + m_journal + "'\nPATH='" +
                                                     rest + "' exec \"$(basename \"$0\")\" \"$@\"\n");
        setenv("PATH", (m_dir.string() + ":" + rest).c_str(), 1);
    }
    ~ToolJournal()
    {
        setenv("PATH", m_savedPath.c_str(), 1);
        fs::remove_all(m_dir);
    }
    // Replaces a wrapper by a tool that notes its call and fails.
    void Fail(const std::string &tool)
    {
        WriteScript((m_dir / tool).string(), "echo \"" + tool + " $*\" >> '" + m_journal + "'\nexit 1\n");
    }
    std::vector<std::string> Lines() const
    {
        std::vector<std::string> lines;
        std::ifstream in(m_journal);
        for (std::string line; std::getline(in, line);)
            lines.push_back(line);
        return lines;
    }
    void Clear() const { fs::remove(m_journal); }

private:
    fs::path m_dir;
    std::string m_journal;
    std::string m_savedPath;
};

} // namespace

TEST(DataFolderHelper, FirstRunPreparesTheFolderAndLaterRunsLeaveItAlone)
{
    LogCapture log;
    ToolJournal tools;
    fs::remove_all(DataFolder());
    CDataFolderHelper helper;

    ASSERT_TRUE(helper.CreateDataFolder());
    const std::string data = DataFolder();
    const std::string label = "\"org.kelvar.lumora\"";
    EXPECT_EQ(tools.Lines(), (std::vector<std::string>{
                                 "mkdir -p " + data,
                                 "cp " + ShippedFolder() + "/mode.xml " + data,
                                 "chmod 777 -R " + data,
                                 "chown app.app -R " + data,
                                 "chsmack -a org.kelvar.lumora -e org.kelvar.lumora " + data,
                             }));
    EXPECT_EQ(ReadAll(data + "/mode.xml"), ReadAll(ShippedFolder() + "/mode.xml"));
    struct stat st;
    ASSERT_EQ(stat(data.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0777u);
    EXPECT_EQ(st.st_uid, getuid()) << "the app user is the invoking user on the host TV";
    EXPECT_TRUE(log.Has("[ExecuteCommand] the command is 'chsmack -a " + label + " -e " + label + " " + data + "'"));
    EXPECT_EQ(log.Messages().back(), "[CreateQORVDataFolder] end");

    log.Clear();
    tools.Clear();
    EXPECT_TRUE(helper.CreateDataFolder());
    EXPECT_TRUE(tools.Lines().empty());
    EXPECT_EQ(log.PriorityOf("[CreateQORVDataFolder] begin"), kDebug);
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{
                                  "[CreateQORVDataFolder] begin",
                                  "[CreateQORVDataFolder] the QORV storage path is already exist",
                                  "[CreateQORVDataFolder] the QORV mode.xml is already exist",
                              }));

    // Folder there, file gone: everything but mkdir runs again.
    tools.Clear();
    fs::remove(data + "/mode.xml");
    EXPECT_TRUE(helper.CreateDataFolder());
    ASSERT_EQ(tools.Lines().size(), 4u);
    EXPECT_EQ(tools.Lines()[0].rfind("cp ", 0), 0u);
}

TEST(DataFolderHelper, AFailingCommandEndsThePreparationAndUndoesNothing)
{
    LogCapture log;
    ToolJournal tools;
    fs::remove_all(DataFolder());
    tools.Fail("chown");
    CDataFolderHelper helper;

    EXPECT_FALSE(helper.CreateDataFolder());
    auto lines = tools.Lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines.back(), "chown app.app -R " + DataFolder());
    EXPECT_TRUE(fs::exists(DataFolder() + "/mode.xml"));
    EXPECT_EQ(log.PriorityOf("[ExecuteCommand] 'chown app.app -R " + DataFolder() + "' is failed!!!"), kError);
    EXPECT_FALSE(log.Has("[CreateQORVDataFolder] end"));


}

TEST(DataFolderHelper, ALongCommandIsLoggedCutAt256CharactersButRunWhole)
{
    LogCapture log;
    const std::string out = tvhost::Root() + "/long-command.out";
    std::string command = "printf %s ";
    const std::string redirect = " > " + out;
    const std::string text(300 - command.size() - redirect.size(), 'x');
    command += text.substr(0, text.size() - 3) + "END" + redirect;
    ASSERT_EQ(command.size(), 300u);

    CDataFolderHelper helper;
    EXPECT_TRUE(helper.ExecuteCommand(command));
    EXPECT_EQ(ReadAll(out), text.substr(0, text.size() - 3) + "END");
    EXPECT_EQ(log.Messages(), std::vector<std::string>{"[ExecuteCommand] the command is '" + command.substr(0, 256) + "'"});

    log.Clear();
    EXPECT_FALSE(helper.ExecuteCommand(command + " && false"));
    EXPECT_EQ(log.PriorityOf("[ExecuteCommand] '" + command.substr(0, 256) + "' is failed!!!"), kError);
    fs::remove(out);
}
