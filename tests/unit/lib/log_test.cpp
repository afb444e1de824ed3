// The real log module, with a socket in the place of the system's log service.
#include "lib/log.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

namespace {

constexpr char log_tag[] = "unit";

class Log : public testing::Test {
  protected:
    Log()
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        str_to(address.sun_path, "/dev/log");
        unlink("/dev/log");
        service = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        EXPECT_EQ(bind(service, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    ~Log() override
    {
        setlogmask(LOG_UPTO(LOG_DEBUG));
        closelog();
        close(service);
        unlink("/dev/log");
    }
    static void str_to(char* destination, const std::string& text)
    {
        text.copy(destination, text.size());
        destination[text.size()] = '\0';
    }
    // The next line as the service got it, "" when there is none; without the line feed or the zero
    // byte that some C libraries send behind it.
    std::string received()
    {
        char line[1024];
        const ssize_t length = recv(service, line, sizeof line, 0);
        std::string text(line, length < 0 ? 0 : static_cast<size_t>(length));
        if (!text.empty() && (text.back() == '\n' || text.back() == '\0'))
            text.pop_back();
        return text;
    }
    // Its priority in front, and its text behind the time and the program.
    std::string received_text()
    {
        const std::string line = received();
        const size_t text = line.find("unit(");
        return text == std::string::npos ? line
                                         : line.substr(0, line.find('>') + 1) + line.substr(text);
    }

    int service;
};

std::string with_priority(int priority, const std::string& text)
{
    return "<" + std::to_string(LOG_DAEMON | priority) + ">" + text;
}

TEST_F(Log, LineIsTheModuleTheLineNumberAndTheMessage)
{
    VY_LOG(LOG_ERR, "mount %s %s", "/dev/sda1", "/mnt/sda1");
    const std::string number = std::to_string(__LINE__ - 1);
    EXPECT_EQ(received_text(),
              with_priority(LOG_ERR, "unit(" + number + ")mount /dev/sda1 /mnt/sda1"));
}

TEST_F(Log, LineMayHaveANumberOfItsOwn)
{
    VY_LOG_AT(LOG_INFO, 42, "exit");
    EXPECT_EQ(received_text(), with_priority(LOG_INFO, "unit(42)exit"));
}

TEST_F(Log, MessageWithoutArgumentsMayHavePercentSigns)
{
    VY_LOG_AT(LOG_INFO, 42, "100%%");
    EXPECT_EQ(received_text(), with_priority(LOG_INFO, "unit(42)100%"));
}

TEST_F(Log, EveryPriorityGoesToTheDaemonFacility)
{
    for (int priority = LOG_EMERG; priority <= LOG_DEBUG; priority++) {
        VY_LOG_AT(priority, 1, "line");
        EXPECT_EQ(received_text(), with_priority(priority, "unit(1)line"));
    }
}

TEST_F(Log, FacilityIsTheDaemonsWhateverOpenlogSaid)
{
    openlog("program", 0, LOG_USER);
    VY_LOG_AT(LOG_ERR, 1, "line");
    EXPECT_EQ(received_text(), with_priority(LOG_ERR, "unit(1)line"));
}

TEST_F(Log, LinesBelowTheMaskAreDropped)
{
    setlogmask(LOG_UPTO(LOG_WARNING));
    VY_LOG_AT(LOG_WARNING, 1, "kept");
    VY_LOG_AT(LOG_NOTICE, 1, "dropped");
    VY_LOG_AT(LOG_DEBUG, 1, "dropped");
    EXPECT_EQ(received_text(), with_priority(LOG_WARNING, "unit(1)kept"));
    EXPECT_EQ(received(), "");
}

TEST_F(Log, LongLineIsNotCutShort)
{
    const std::string path(600, 'p');
    VY_LOG_AT(LOG_ERR, 1, "mount %s", path.c_str());
    EXPECT_EQ(received_text(), with_priority(LOG_ERR, "unit(1)mount " + path));
}

} // namespace
