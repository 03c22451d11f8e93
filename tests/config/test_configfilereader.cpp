// Configuration files (sections of key=value lines, XML landscapes) and the
// configuration manager's server list in the registry.
#include <quenlib/configfilereader.h>
#include <registrykeys/configmgr_regkeys.h>

#include "config_support.h"

using namespace QuenLibA500;
namespace fs = std::filesystem;

namespace {

using quentest::str;

std::vector<std::string> strs(SIArray<SAnsiString> const& a) {
  std::vector<std::string> v;
  for (auto const& s : a) v.push_back(str(s));
  return v;
}

class ConfigFile : public quentest::StoreTest {
 protected:
  SAnsiString write(char const* name, std::string const& bytes) {
    quentest::WriteFile(dir + "/" + name, bytes);
    return SAnsiString((dir + "/" + name).c_str());
  }
};

}  // namespace

TEST_F(ConfigFile, SectionsAndLines) {
  ConfigFileReader r;
  EXPECT_FALSE(r.isInitialized());
  ASSERT_TRUE(r.initialize(write("a.cfg",
                                 "ignored=before\n"
                                 "[First]\n"
                                 "  key = value  \n"
                                 "url=http://h/?a=b=c\n"
                                 "\n"
                                 "key=second\n"
                                 "bare\n"
                                 "not[a]section=x\r\n"
                                 "[Second]inline=yes\n"
                                 "k=v\n"
                                 "[Empty]\n")));
  EXPECT_TRUE(r.isInitialized());
  SIArray<SAnsiString> sections, keys;
  ASSERT_TRUE(r.getSections(sections));
  EXPECT_EQ(strs(sections), (std::vector<std::string>{"First", "Second", "Empty"}));
  struct {
    char const* section;
    char const* key;
    char const* want;
  } rows[] = {
      {"First", "key", "value"},              // trimmed; the first line wins
      {"First", "url", "http://h/?a=b=c"},    // everything after the first "="
      {"First", "bare", ""},                  // no "=": empty value
      {"First", "not[a]section", "x"},        // "[" inside a line starts nothing
      {"Second", "inline", "yes"},            // right after the "]"
      {"Second", "k", "v"},
      {"First", "KEY", "<default>"},          // exact keys
      {"first", "key", "<default>"},          // exact section names
      {"Missing", "key", "<default>"},
      {"First", "ignored", "<default>"},      // text before the first "["
  };
  for (auto const& row : rows)
    EXPECT_EQ(str(r.getValue(row.section, row.key, "<default>")), row.want) << row.section << "/" << row.key;
  ASSERT_TRUE(r.enumerateSection("First", keys));
  EXPECT_EQ(strs(keys), (std::vector<std::string>{"key", "url", "bare", "not[a]section"}));
  ASSERT_TRUE(r.enumerateSection("Empty", keys));
  EXPECT_TRUE(keys.IsEmpty());
  EXPECT_FALSE(r.enumerateSection("Missing", keys));
}

// Repeated section names: the first section of the name that has the key
// answers. A loaded reader (and its copies) keeps its file; a new one reads
// the changed file.
TEST_F(ConfigFile, RepeatedSectionsAndChangedFile) {
  SAnsiString const path = write("r.cfg", "[A]\nk=1\n[B]\nk=b\n[A]\nk=2\nj=3\n[]\n=empty\n");
  ConfigFileReader r;
  ASSERT_TRUE(r.initialize(path));
  ConfigFileReader const copy = r;
  write("r.cfg", "[A]\nk=changed\nj=changed\n");
  ConfigFileReader fresh;
  ASSERT_TRUE(fresh.initialize(path));
  struct {
    char const* section;
    char const* key;
    char const* loaded;
    char const* changed;
  } rows[] = {
      {"A", "k", "1", "changed"}, {"A", "j", "3", "changed"}, {"B", "k", "b", "-"},
      {"", "", "empty", "-"},     {"A", "", "-", "-"},        {"C", "k", "-", "-"},
  };
  for (auto const& row : rows) {
    EXPECT_EQ(str(r.getValue(row.section, row.key, "-")), row.loaded) << row.section << "/" << row.key;
    EXPECT_EQ(str(copy.getValue(row.section, row.key, "-")), row.loaded) << row.section << "/" << row.key;
    EXPECT_EQ(str(fresh.getValue(row.section, row.key, "-")), row.changed) << row.section << "/" << row.key;
  }
  EXPECT_EQ(str(ConfigFileReader().getValue("A", "k", "-")), "-");  // nothing loaded
}

TEST_F(ConfigFile, OpenFailureTracesTheFileReason) {
  quentest::TraceLog log;
  std::vector<std::string>& traced = log.lines;
  struct {
    std::string path;
    bool xml;
    char const* reason;
  } rows[] = {
      {dir, false, "Is a directory"},
      {dir + "/no/such.cfg", false, "No such file or directory"},
      {dir + "/none.xml", true, "No such file or directory"},
      {dir, true, "Is a directory"},
  };
  for (auto const& row : rows) {
    traced.clear();
    ConfigFileReader r;
    EXPECT_FALSE(row.xml ? r.initializeFromXML(row.path.c_str()) : r.initialize(row.path.c_str()));
    EXPECT_FALSE(r.isInitialized());
    ASSERT_EQ(traced.size(), 1u) << row.path;
    std::string want = "ConfigFileReader::initialize() failed to open config file. Reason is: " + row.path +
                       ": " + row.reason + ".";
    EXPECT_NE(traced[0].find(want), std::string::npos) << traced[0];
  }
}

TEST_F(ConfigFile, LandscapeXml) {
  std::string xml =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<Landscape>\n"
      "  <Services>\n"
      "    <Service uuid=\"u-1\" name=\"Alpha\" server=\"host1\">\n"
      "      <Description>First\nservice</Description>\n"
      "      <Database>db=1</Database>\n"
      "    </Service>\n"
      "    <Service uuid=\"u-2\">\n"
      "      <name>Beta</name>\n"
      "      <Server>host2</Server>\n"
      "    </Service>\n"
      "  </Services>\n"
      "</Landscape>\n";
  ConfigFileReader r;
  ASSERT_TRUE(r.initializeFromXML(write("land.xml", xml)));
  SIArray<SAnsiString> sections, keys;
  ASSERT_TRUE(r.getSections(sections));
  EXPECT_EQ(strs(sections), (std::vector<std::string>{"Alpha", "Beta"}));
  EXPECT_EQ(str(r.getValue("Alpha", "server", "")), "host1");
  EXPECT_EQ(str(r.getValue("Alpha", "Description", "")), "First service");
  EXPECT_EQ(str(r.getValue("Alpha", "Database", "")), "db=1");
  EXPECT_EQ(str(r.getValue("Beta", "Server", "")), "host2");
  ASSERT_TRUE(r.enumerateSection("Beta", keys));
  EXPECT_EQ(strs(keys), (std::vector<std::string>{"uuid", "name", "Server"}));

  ConfigFileReader bad, wrongRoot, missing;
  EXPECT_FALSE(bad.initializeFromXML(write("bad.xml", "<Landscape><Services>")));
  EXPECT_FALSE(bad.isInitialized());
  EXPECT_FALSE(wrongRoot.initializeFromXML(write("root.xml", "<Other/>")));
  EXPECT_FALSE(missing.initializeFromXML((dir + "/none.xml").c_str()));
}

TEST_F(ConfigFile, ConfigManagerServers) {
  quentest::AssertLog log;
  SIArray<ConfigMgrRegistry::ServerType> list;
  ConfigMgrRegistry cm("");
  EXPECT_FALSE(cm.Get(list));  // no key yet
  EXPECT_EQ(str(cm.GetKeyName()), "Software\\Orrin Tolvane\\Suite KR 4.0\\Config Manager");

  CompanyRegistry full("Config Manager\\Full", "Software\\Orrin Tolvane\\Suite KR 4.0\\", HKEY_LOCAL_MACHINE,
                       true);
  for (char const* name : {"ServiceName", "Path", "Dependency", "CommandLine", "IsDependsOnEbus"})
    ASSERT_TRUE(full.WriteValue(name, SAnsiString(name) + "-value"));
  CompanyRegistry partial("Config Manager\\Partial", "Software\\Orrin Tolvane\\Suite KR 4.0\\",
                          HKEY_LOCAL_MACHINE, true);
  ASSERT_TRUE(partial.WriteValue("ServiceName", SAnsiString("svc")));

  ASSERT_TRUE(cm.Get(list));
  ASSERT_EQ(list.GetSize(), 2);
  EXPECT_EQ(str(list[0].ServerKey), "Full");
  EXPECT_EQ(str(list[0].CommandLine), "CommandLine-value");
  EXPECT_EQ(str(list[0].IsDependsOnEbus), "IsDependsOnEbus-value");
  EXPECT_EQ(str(list[1].ServerKey), "Partial");
  EXPECT_EQ(str(list[1].ServiceName), "svc");
  EXPECT_EQ(log.messages(), (std::vector<std::string>{"SocksServerRegistry::Get Invalid value for path",
                                                "SocksServerRegistry::Get Invalid value for dependency",
                                                "SocksServerRegistry::Get Invalid value for command line",
                                                "SocksServerRegistry::Get Invalid value for depend on ebus"}));
}

// The example shipped for operators must stay a valid landscape file.
TEST(ConfigFileExample, ShippedLandscapeReads) {
  ConfigFileReader r;
  ASSERT_TRUE(r.initializeFromXML(QUENLIB_SOURCE_DIR "/docs/landscape.example.xml"));
  SIArray<SAnsiString> sections;
  ASSERT_TRUE(r.getSections(sections));
  ASSERT_EQ(sections.GetSize(), 3);
  EXPECT_STREQ(sections[0].getString(), "CentralServer");
  EXPECT_STREQ(sections[1].getString(), "JobServer");
  EXPECT_STREQ(sections[2].getString(), "WebConnector");
  EXPECT_STREQ(r.getValue("CentralServer", "server", "").getString(), "app01.example.test");
  EXPECT_STREQ(r.getValue("CentralServer", "Database", "").getString(), "DSN=central;UID=cms");
  EXPECT_STREQ(r.getValue("JobServer", "Server", "").getString(), "app02.example.test");
  EXPECT_STREQ(r.getValue("WebConnector", "uuid", "").getString(),
               "c4a7e913-6d2b-4f80-8e15-7b3d0a9c5e66");
  EXPECT_STREQ(r.getValue("WebConnector", "Description", "none").getString(), "none");
}
