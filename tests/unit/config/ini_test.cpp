#include "config/ini.h"

#include "fake/fake_log.h"
#include "support/failing_calls.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

using namespace std::string_literals;

namespace {

const std::string path = "/tmp/test.conf";

// What a lookup gave: "0 text", or the negative result alone.
std::string lookup(const char* section, const char* key, int32_t occurrence = INI_LAST)
{
    char* value = nullptr;
    const int result = config_get_ini_string(path.c_str(), section, key, &value, occurrence);
    if (result != 0) {
        EXPECT_EQ(value, nullptr) << "the value must stay as it was";
        return std::to_string(result);
    }
    const std::string text = "0 "s + value;
    config_release_string(value);
    return text;
}

std::string lookup_in(const std::string& content, const char* section, const char* key,
                      int32_t occurrence = INI_LAST)
{
    write_file(path, content);
    return lookup(section, key, occurrence);
}

std::vector<std::string> sections_of(const std::string& content)
{
    write_file(path, content);
    vylist* list = nullptr;
    EXPECT_EQ(config_get_section_list(path.c_str(), &list), 0);
    std::vector<std::string> names;
    for (vylist_node* node = list->next; node != vylist_end(list); node = node->next)
        names.emplace_back(static_cast<const char*>(node->data));
    EXPECT_EQ(list->count, names.size());
    config_release_section_list(list);
    return names;
}

using Names = std::vector<std::string>;

// ---- how a lookup finds a header ----

TEST(IniFile, IsOpenForNobodyElse)
{
    write_file(path, "[a]\nb=c\n");
    EXPECT_TRUE(inheritable_after([] { EXPECT_EQ(lookup("a", "b"), "0 c"); }).empty());
}

TEST(IniFile, IsReadThroughTheFirstDescriptor)
{
    write_file(path, "[a]\nb=c\n");
    with_input_closed([] { EXPECT_EQ(lookup("a", "b"), "0 c"); });
}

TEST(IniHeader, IsFoundWithoutRegardToCase)
{
    EXPECT_EQ(lookup_in("[Config]\nk=v\n", "config", "k"), "0 v");
    EXPECT_EQ(lookup_in("[config]\nk=v\n", "CONFIG", "k"), "0 v");
}

TEST(IniHeader, IsFoundBehindSpacesAndTabs)
{
    EXPECT_EQ(lookup_in("x=1\n \t [dev]\nk=v\n", "dev", "k"), "0 v");
}

TEST(IniHeader, IsNotFoundBehindOtherCharacters)
{
    EXPECT_EQ(lookup_in("x[dev]\nk=v\n", "dev", "k"), "-1");
    EXPECT_EQ(lookup_in("\v[dev]\nk=v\n", "dev", "k"), "-1");
}

TEST(IniHeader, MatchesTheWholeNameOnly)
{
    write_file(path, "[abc]\nk=v\n");
    EXPECT_EQ(lookup("abc", "k"), "0 v");
    EXPECT_EQ(lookup("ab", "k"), "-1");
    EXPECT_EQ(lookup("abcd", "k"), "-1");
    EXPECT_EQ(lookup("bc", "k"), "-1");
}

TEST(IniHeader, IgnoresWhatFollowsTheFirstClosingBracket)
{
    EXPECT_EQ(lookup_in("[dev] ; the first\nk=v\n", "dev", "k"), "0 v");
    EXPECT_EQ(lookup_in("[dev]abc]\nk=v\n", "dev", "k"), "0 v");
    EXPECT_EQ(lookup_in("[dev]abc]\nk=v\n", "dev]abc", "k"), "-1");
}

TEST(IniHeader, CountsBlanksInsideTheBrackets)
{
    write_file(path, "[ dev 1 ]\nk=v\n");
    EXPECT_EQ(lookup(" dev 1 ", "k"), "0 v");
    EXPECT_EQ(lookup("dev 1", "k"), "-1");
    EXPECT_EQ(lookup(" dev  1 ", "k"), "-1");
}

TEST(IniHeader, WithoutAClosingBracketIsNone)
{
    EXPECT_EQ(lookup_in("[dev\nk=v\n", "dev", "k"), "-1");
    EXPECT_EQ(lookup_in("[dev\n]\nk=v\n", "dev", "k"), "-1");
}

TEST(IniHeader, MayStandOnAnUnterminatedLastLine)
{
    EXPECT_EQ(lookup_in("[dev]", "dev", "k"), "-2");
}

TEST(IniHeader, LastOfOneNameWins)
{
    const char* text = "[dev]\nk=first\nonly=1\n[other]\nk=no\n[DEV]\nk=second\n";
    EXPECT_EQ(lookup_in(text, "dev", "k"), "0 second");
}

TEST(IniHeader, SectionsOfOneNameAreNotMerged)
{
    const char* text = "[dev]\nk=first\nonly=1\n[dev]\nk=second\n";
    EXPECT_EQ(lookup_in(text, "dev", "only"), "-2");
    EXPECT_EQ(lookup_in(text, "dev", "k", 2), "-2");
}

TEST(IniHeader, EmptyLastSectionHidesTheEarlierOnes)
{
    EXPECT_EQ(lookup_in("[dev]\nk=v\n[dev]\n", "dev", "k"), "-2");
}

TEST(IniHeader, LastOfOneNameWinsAlsoWhenIndented)
{
    EXPECT_EQ(lookup_in("[dev]\nk=first\n  [dev]\nk=second\n", "dev", "k"), "0 second");
    EXPECT_EQ(lookup_in("[dev]\nk=first\n  [dev]\nk=second\n", "dev", "k", 2), "-2");
}

TEST(IniHeader, NoNameAsksForTheTopOfTheFile)
{
    write_file(path, "k=top\n[dev]\nk=v\n");
    EXPECT_EQ(lookup("", "k"), "0 top");
    EXPECT_EQ(lookup(nullptr, "k"), "0 top");
    EXPECT_EQ(lookup("", "none"), "-2");
}

TEST(IniHeader, TopOfTheFileIsThereEvenInAnEmptyFile)
{
    EXPECT_EQ(lookup_in("", "", "k"), "-2");
    EXPECT_EQ(lookup_in("", nullptr, "k"), "-2");
    EXPECT_EQ(lookup_in("", "dev", "k"), "-1");
}

TEST(IniHeader, WithAnEmptyNameDoesNotMoveTheTop)
{
    EXPECT_EQ(lookup_in("k=top\n[]\nk=v\n", "", "k"), "0 top");
}

TEST(IniHeader, ManySectionsAreAllFound)
{
    std::string text;
    for (int i = 0; i < 500; i++)
        text += "[Section " + std::to_string(i) + "]\nk=" + std::to_string(i) + "\n";
    write_file(path, text);
    for (int i = 0; i < 500; i++) {
        const std::string name = "sECTION " + std::to_string(i);
        ASSERT_EQ(lookup(name.c_str(), "k"), "0 " + std::to_string(i)) << name;
    }
    EXPECT_EQ(lookup("section 500", "k"), "-1");
}

// ---- how a section ends ----

TEST(IniHeader, ANameThatComesAgainIsTheLastOneHoweverManyThereAre)
{
    std::string text;
    for (int round = 1; round <= 3; round++) {
        for (int i = 0; i < 100; i++)
            text += "[S" + std::to_string(i) + "]\nk=" + std::to_string(round * 1000 + i) + "\n";
    }
    write_file(path, text);
    for (int i = 0; i < 100; i++)
        EXPECT_EQ(lookup(("s" + std::to_string(i)).c_str(), "k"), "0 " + std::to_string(3000 + i));
}

TEST(IniSection, EndsAtTheNextHeader)
{
    EXPECT_EQ(lookup_in("[a]\nx=1\n[b]\nk=v\n", "a", "k"), "-2");
}

TEST(IniSection, EndsAtABracketInTheFirstColumnWithAClosingOneAnywhere)
{
    EXPECT_EQ(lookup_in("[a]\n[b=c] d\nk=v\n", "a", "k"), "-2");
    EXPECT_EQ(lookup_in("[a]\n[b = c ] d = e\nk=v\n", "a", "k"), "-2");
    EXPECT_EQ(lookup_in("[a]\n[]\nk=v\n", "a", "k"), "-2");
    EXPECT_EQ(lookup_in("[a]\n[b]trailing\nk=v\n", "a", "k"), "-2");
}

TEST(IniSection, GoesOnBehindABracketWithoutAClosingOne)
{
    EXPECT_EQ(lookup_in("[a]\n[b\nk=v\n", "a", "k"), "0 v");
}

// Hand-indented files are read so: the indented header opens a section and closes none.
TEST(IniSection, GoesOnThroughAnIndentedHeader)
{
    write_file(path, "[a]\nx=1\n  [b]\nk=v\n");
    EXPECT_EQ(lookup("a", "k"), "0 v");
    EXPECT_EQ(lookup("b", "k"), "0 v");
    EXPECT_EQ(lookup("b", "x"), "-2");
}

TEST(IniSection, TopOfTheFileGoesOnThroughAnIndentedHeader)
{
    write_file(path, "x=1\n\t[b]\nk=v\n[c]\nz=1\n");
    EXPECT_EQ(lookup("", "k"), "0 v");
    EXPECT_EQ(lookup("", "z"), "-2");
}

TEST(IniSection, ABracketLineThatDoesNotEndTheSectionIsAnEntry)
{
    EXPECT_EQ(lookup_in("[a]\n[b=v\n", "a", "[b"), "0 v");
    EXPECT_EQ(lookup_in("[a]\n [b]=v\n", "a", "[b]"), "0 v");
}

// ---- keys ----

TEST(IniKey, LosesBlanksWhereverTheyStand)
{
    write_file(path, " mount\t path =v\n");
    EXPECT_EQ(lookup("", "mountpath"), "0 v");
    EXPECT_EQ(lookup("", "mount path"), "0 v");
    EXPECT_EQ(lookup("", "\tm o u n t p a t h "), "0 v");
    EXPECT_EQ(lookup_in("mountpath=v\n", "", "Mount Path"), "0 v");
}

TEST(IniKey, IsComparedWithoutRegardToCase)
{
    EXPECT_EQ(lookup_in("MoUnTpAtH=v\n", "", "mOuNtPaTh"), "0 v");
}

TEST(IniKey, MatchesWholeOnly)
{
    write_file(path, "path=v\n");
    EXPECT_EQ(lookup("", "pat"), "-2");
    EXPECT_EQ(lookup("", "paths"), "-2");
    EXPECT_EQ(lookup("", "ath"), "-2");
}

TEST(IniKey, OfBytesAbove127IsComparedExactly)
{
    write_file(path, "k\xC3\xA4=v\n");
    EXPECT_EQ(lookup("", "k\xC3\xA4"), "0 v");
    EXPECT_EQ(lookup("", "k\xC3\x84"), "-2");
}

TEST(IniKey, IsSignificantUpToItsCharacter511)
{
    const std::string key(511, 'k');
    write_file(path, key + "=v\n");
    EXPECT_EQ(lookup("", key.c_str()), "0 v");
    EXPECT_EQ(lookup("", (std::string(510, 'k') + "x").c_str()), "-2");
    EXPECT_EQ(lookup("", std::string(510, 'k').c_str()), "-2");
}

TEST(IniKey, BlanksDoNotCountTowardsThe511)
{
    const std::string key(511, 'k');
    EXPECT_EQ(lookup_in(std::string(600, ' ') + key + "=v\n", "", key.c_str()), "0 v");
    EXPECT_EQ(lookup_in(key + "=v\n", "", ("\t" + std::string(600, ' ') + key).c_str()), "0 v");
}

TEST(IniKey, WithAHashMatchesNoOrdinaryKey)
{
    write_file(path, "# k=v\n");
    EXPECT_EQ(lookup("", "k"), "-2");
    EXPECT_EQ(lookup("", "#k"), "0 v");
}

TEST(IniKey, ALineWithoutAnEqualsSignIsPassedOver)
{
    EXPECT_EQ(lookup_in("k\nk v\nk: v\n", "", "k"), "-2");
}

TEST(IniKey, MissingGivesEnoent)
{
    EXPECT_EQ(lookup_in("[dev]\na=1\n", "dev", "k"), std::to_string(-ENOENT));
}

// ---- values ----

TEST(IniValue, IsEverythingBehindTheFirstEqualsSign)
{
    EXPECT_EQ(lookup_in("k=a=b==\n", "", "k"), "0 a=b==");
}

TEST(IniValue, LosesBlanksAtBothEndsOnly)
{
    EXPECT_EQ(lookup_in("k = \t a  b\tc \t \n", "", "k"), "0 a  b\tc");
}

TEST(IniValue, KeepsWhatOtherReadersTakeForComments)
{
    EXPECT_EQ(lookup_in("Key = value ;note\n", "", "key"), "0 value ;note");
    EXPECT_EQ(lookup_in("Key = value # note\n", "", "key"), "0 value # note");
}

TEST(IniValue, KeepsQuotesAndBackslashes)
{
    EXPECT_EQ(lookup_in("k=\" a \\n\\\n", "", "k"), "0 \" a \\n\\");
    EXPECT_EQ(lookup_in("k=a\\\nb=c\n", "", "k"), "0 a\\");
}

TEST(IniValue, MayBeEmpty)
{
    EXPECT_EQ(lookup_in("k=\n", "", "k"), "0 ");
    EXPECT_EQ(lookup_in("k= \t\n", "", "k"), "0 ");
    EXPECT_EQ(lookup_in("k=", "", "k"), "0 ");
}

TEST(IniValue, IsCutTo2047Bytes)
{
    const std::string long_value = std::string(2046, 'a') + "bc" + std::string(952, 'd');
    EXPECT_EQ(lookup_in("k=" + long_value + "\n", "", "k"), "0 " + std::string(2046, 'a') + "b");
    EXPECT_EQ(lookup_in("k=" + std::string(2047, 'a') + "\n", "", "k"),
              "0 " + std::string(2047, 'a'));
}

TEST(IniValue, IsSaidToBeCut)
{
    const std::string whole(2047, 'a');
    const std::string text = "a=" + whole + "x\na = " + whole + " \nB b=1\nbb=" + whole + "x\n";
    IniDocGuard doc;
    IniSectionGuard section;
    ASSERT_EQ(ini_doc_parse(text.data(), text.size(), doc.out()), 0);
    ASSERT_EQ(ini_section_open(doc.get(), nullptr, section.out()), 0);
    EXPECT_FALSE(ini_section_is_cut(section.get(), "a")) << "the last one counts";
    EXPECT_TRUE(ini_section_is_cut(section.get(), "bB"));
    EXPECT_FALSE(ini_section_is_cut(section.get(), "c"));
    EXPECT_FALSE(ini_section_is_cut(section.get(), nullptr));
    EXPECT_FALSE(ini_section_is_cut(nullptr, "a"));
}

TEST(IniValue, LosesItsLeadingBlanksBeforeItIsCut)
{
    EXPECT_EQ(lookup_in("k=" + std::string(3000, ' ') + "v\n", "", "k"), "0 v");
}

TEST(IniValue, LosesTheBlanksAtItsEndBeforeItIsCut)
{
    EXPECT_EQ(lookup_in("k=" + std::string(2040, 'a') + std::string(100, ' ') + "b\n", "", "k"),
              "0 " + std::string(2040, 'a') + std::string(7, ' '));
}

TEST(IniValue, MayHoldBracketsAndBytesAbove127)
{
    EXPECT_EQ(lookup_in("k=[\xFF] \xC3\xA4\n", "", "k"), "0 [\xFF] \xC3\xA4");
}

// ---- occurrences ----

TEST(IniOccurrence, LastAndNthOfARepeatedKey)
{
    write_file(path, "[s]\nk=1\nK = 2\nx=9\n k=3\n[t]\nk=4\n");
    EXPECT_EQ(lookup("s", "k", INI_LAST), "0 3");
    EXPECT_EQ(lookup("s", "k", 1), "0 1");
    EXPECT_EQ(lookup("s", "k", 2), "0 2");
    EXPECT_EQ(lookup("s", "k", 3), "0 3");
    EXPECT_EQ(lookup("s", "k", 4), "-2");
    EXPECT_EQ(lookup("s", "k", INT32_MAX), "-2");
}

TEST(IniOccurrence, ZeroIsNeverFound)
{
    EXPECT_EQ(lookup_in("k=1\n", "", "k", 0), "-2");
}

TEST(IniOccurrence, LastWinsEvenWhenItIsEmpty)
{
    EXPECT_EQ(lookup_in("k=1\nk=\n", "", "k", INI_LAST), "0 ");
    EXPECT_EQ(lookup_in("k=\nk=2\n", "", "k", INI_LAST), "0 2");
    EXPECT_EQ(lookup_in("k=\nk=2\n", "", "k", 1), "0 ");
}

// A section's first entries are kept at hand, the others are looked for in the text.
TEST(IniOccurrence, GoesOnBehindTheEntriesKeptAtHand)
{
    for (int before = 20; before <= 50; before++) {
        std::string text = "[s]\n";
        for (int i = 1; i <= before; i++)
            text += "x" + std::to_string(i) + "=v\n";
        write_file(path, text + "k=1\n[b\nnone\n K = 2\n[t]\nk=3\n");
        EXPECT_EQ(lookup("s", "k", INI_LAST), "0 2") << before;
        EXPECT_EQ(lookup("s", "k", 1), "0 1") << before;
        EXPECT_EQ(lookup("s", "k", 2), "0 2") << before;
        EXPECT_EQ(lookup("s", "k", 3), "-2") << before;
        EXPECT_EQ(lookup("s", ("x" + std::to_string(before)).c_str()), "0 v") << before;
    }
}

// ---- lines ----

TEST(IniLine, EndsAtACarriageReturn)
{
    EXPECT_EQ(lookup_in("a=1\rk=v\rb=2", "", "k"), "0 v");
}

TEST(IniLine, EndsAtANulByte)
{
    write_file(path, "a=1\0k=v\0[dev]\0k=w\0"s);
    EXPECT_EQ(lookup("", "k"), "0 v");
    EXPECT_EQ(lookup("dev", "k"), "0 w");
}

TEST(IniLine, WithACarriageReturnAndALineFeedReadsTheSame)
{
    write_file(path, "k=v\r\n[dev]\r\nk=w\r\n\r\nl=\r\n");
    EXPECT_EQ(lookup("", "k"), "0 v");
    EXPECT_EQ(lookup("dev", "k"), "0 w");
    EXPECT_EQ(lookup("dev", "l"), "0 ");
    EXPECT_EQ(sections_of("[a]\r\n[b] \r\n"), (Names{"a", "b"}));
}

TEST(IniLine, MayBeTheLastWithoutAnEnd)
{
    EXPECT_EQ(lookup_in("a=1\nk=v", "", "k"), "0 v");
}

TEST(IniLine, Of100000CharactersIsReadWhole)
{
    const std::string blanks(100000, ' ');
    write_file(path, "a=" + std::string(100000, 'x') + "\n" + blanks + "k" + blanks + "=" + blanks +
                         "v" + blanks + "\nlast=1\n");
    EXPECT_EQ(lookup("", "k"), "0 v");
    EXPECT_EQ(lookup("", "last"), "0 1");
    EXPECT_EQ(lookup("", "a"), "0 " + std::string(2047, 'x'));
}

TEST(IniLine, HeaderOf100000CharactersIsFoundAndListed)
{
    const std::string name(100000, 'n');
    EXPECT_EQ(lookup_in("[" + name + "]\nk=v\n", name.c_str(), "k"), "0 v");
    EXPECT_EQ(sections_of("[" + name + "]\n"), (Names{name}));
}

// The places where buffers of usual sizes are full.
TEST(IniLine, OfAnyLengthAroundABufferSizeIsReadWhole)
{
    for (const size_t size : {8UL, 16UL, 512UL, 1024UL, 4096UL, 8192UL, 65536UL}) {
        for (size_t length = size - 4; length <= size + 4; length++) {
            const std::string padding(length, 'x');
            ASSERT_EQ(lookup_in(padding + "=1\nk=v", "", "k"), "0 v") << length;
            ASSERT_EQ(lookup_in("k=v\n" + padding, "", "k"), "0 v") << length;
        }
    }
}

// ---- the section list ----

TEST(IniSectionList, HoldsEveryNameInFileOrderWithDuplicates)
{
    EXPECT_EQ(sections_of("x=1\n[b]\nk=v\n[a]\n[b]\n[B]\n"), (Names{"b", "a", "b", "B"}));
}

TEST(IniSectionList, KeepsBlanksAndCaseOfAName)
{
    EXPECT_EQ(sections_of("[dev 1]  \t\n[ Dev\t2 ]\n[ ]\n"), (Names{"dev 1", " Dev\t2 ", " "}));
}

TEST(IniSectionList, TakesIndentedHeaders)
{
    EXPECT_EQ(sections_of(" \t[a]\n"), (Names{"a"}));
}

TEST(IniSectionList, TakesANameUpToTheLastClosingBracket)
{
    EXPECT_EQ(sections_of("[a]b]\n[c][d] \n[]]\n"), (Names{"a]b", "c][d", "]"}));
}

TEST(IniSectionList, PassesAHeaderOverThatAnythingButBlanksFollows)
{
    EXPECT_EQ(sections_of("[dev 1] word\n[a];\n[b]=1\n[c]\v\n[d]\n"), (Names{"d"}));
}

TEST(IniSectionList, PassesOverWhatIsNoHeader)
{
    EXPECT_EQ(sections_of("a]\n[b\n[\n]\nk=[c]\nx [d]\n\n"), Names());
}

TEST(IniSectionList, PassesAnEmptyNameOver)
{
    EXPECT_EQ(sections_of("[]\n [] \n[a]\n"), (Names{"a"}));
}

TEST(IniSectionList, OfAFileWithoutSectionsIsEmpty)
{
    EXPECT_EQ(sections_of(""), Names());
    EXPECT_EQ(sections_of("k=v\n"), Names());
}

TEST(IniSectionList, LinesEndAtNulAndCarriageReturn)
{
    EXPECT_EQ(sections_of("[a]\0[b]\r[c]"s), (Names{"a", "b", "c"}));
}

// A name that holds a "]" is listed but cannot be looked up: the two rules differ.
TEST(IniSectionList, MayNameASectionThatNoLookupFinds)
{
    EXPECT_EQ(sections_of("[a]b]\nk=v\n"), (Names{"a]b"}));
    EXPECT_EQ(lookup("a]b", "k"), "-1");
    EXPECT_EQ(lookup("a", "k"), "0 v");
}

// ---- arguments, files ----

TEST(IniArguments, NullGivesEinval)
{
    write_file(path, "k=v\n");
    char* value = nullptr;
    vylist* list = nullptr;
    EXPECT_EQ(config_get_ini_string(nullptr, "", "k", &value, INI_LAST), -EINVAL);
    EXPECT_EQ(config_get_ini_string(path.c_str(), "", nullptr, &value, INI_LAST), -EINVAL);
    EXPECT_EQ(config_get_ini_string(path.c_str(), "", "k", nullptr, INI_LAST), -EINVAL);
    EXPECT_EQ(config_get_section_list(nullptr, &list), -EINVAL);
    EXPECT_EQ(config_get_section_list(path.c_str(), nullptr), -EINVAL);
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(list, nullptr);
}

TEST(IniArguments, ReleasingNullIsHarmless)
{
    config_release_string(nullptr);
    config_release_section_list(nullptr);
}

TEST(IniArguments, AFailureLeavesTheValueUntouched)
{
    char mark = 'm';
    char* value = &mark;
    write_file(path, "[dev]\na=1\n");
    EXPECT_EQ(config_get_ini_string(path.c_str(), "dev", "k", &value, INI_LAST), -ENOENT);
    EXPECT_EQ(config_get_ini_string(path.c_str(), "dev", "a", &value, 2), -ENOENT);
    EXPECT_EQ(config_get_ini_string(path.c_str(), "none", "a", &value, INI_LAST), -1);
    EXPECT_EQ(config_get_ini_string("/tmp/none", "dev", "a", &value, INI_LAST), -EIO);
    EXPECT_EQ(config_get_ini_string(path.c_str(), "dev", nullptr, &value, INI_LAST), -EINVAL);
    EXPECT_EQ(value, &mark);
}

TEST(IniArguments, AFailureLeavesTheListUntouched)
{
    vylist mark;
    vylist* list = &mark;
    EXPECT_EQ(config_get_section_list("/tmp/none", &list), -EIO);
    EXPECT_EQ(config_get_section_list(nullptr, &list), -EINVAL);
    EXPECT_EQ(list, &mark);
}

TEST(IniArguments, AFailureIsNotLogged)
{
    write_file(path, "[dev]\na=1\n");
    EXPECT_EQ(lookup("dev", "k"), std::to_string(-ENOENT));
    EXPECT_EQ(lookup("dev", "a", 2), std::to_string(-ENOENT));
    EXPECT_EQ(lookup("none", "a"), "-1");
    ASSERT_EQ(unlink(path.c_str()), 0);
    EXPECT_EQ(lookup("dev", "a"), std::to_string(-EIO));
    char* value = nullptr;
    EXPECT_EQ(config_get_ini_string(nullptr, "dev", "a", &value, INI_LAST), -EINVAL);
    vylist* list = nullptr;
    EXPECT_EQ(config_get_section_list(path.c_str(), &list), -EIO);
    EXPECT_EQ(config_get_section_list(nullptr, &list), -EINVAL);
    EXPECT_TRUE(fake_log_lines().empty());
}

TEST(IniFile, MissingGivesEio)
{
    EXPECT_EQ(lookup("dev", "k"), std::to_string(-EIO));
    vylist* list = nullptr;
    EXPECT_EQ(config_get_section_list(path.c_str(), &list), -EIO);
}

// A directory can be opened, but not read.
TEST(IniFile, WhatCannotBeReadReadsAsEmpty)
{
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
    EXPECT_EQ(lookup("dev", "k"), "-1");
    EXPECT_EQ(lookup("", "k"), "-2");
    vylist* list = nullptr;
    ASSERT_EQ(config_get_section_list(path.c_str(), &list), 0);
    EXPECT_EQ(list->count, 0U);
    config_release_section_list(list);
}

TEST(IniFile, IsReadAfreshAtEveryCall)
{
    EXPECT_EQ(lookup_in("[a]\nk=1\n", "a", "k"), "0 1");
    EXPECT_EQ(lookup_in("[a]\nk=2\n", "a", "k"), "0 2");
    EXPECT_EQ(sections_of("[b]\n"), (Names{"b"}));
    ASSERT_EQ(unlink(path.c_str()), 0);
    EXPECT_EQ(lookup("b", "k"), std::to_string(-EIO));
}

TEST(IniFile, IsClosedInEveryCase)
{
    write_file(path, "[dev]\nk=v\ne=\n");
    const int before = open_descriptors();
    (void)lookup("dev", "k");
    (void)lookup("dev", "k", 1);
    (void)lookup("dev", "e");
    (void)lookup("dev", "none");
    (void)lookup("none", "k");
    (void)sections_of("[dev]\n");
    EXPECT_EQ(open_descriptors(), before);
}

// ---- a document ----

TEST(IniDocument, AnswersForTheVersionThatWasRead)
{
    write_file(path, "[a]\nk=1\n");
    IniDocGuard doc;
    ASSERT_EQ(ini_doc_load(path.c_str(), doc.out()), 0);
    write_file(path, "[a]\nk=2\n");
    IniValueGuard value;
    ASSERT_EQ(ini_doc_get_string(doc.get(), "a", "k", value.out(), INI_LAST), 0);
    EXPECT_STREQ(value.get(), "1");
}

TEST(IniDocument, ChecksItsArguments)
{
    IniDocGuard doc;
    char* value = nullptr;
    vylist* list = nullptr;
    EXPECT_EQ(ini_doc_load(nullptr, doc.out()), -EINVAL);
    EXPECT_EQ(ini_doc_load(path.c_str(), nullptr), -EINVAL);
    EXPECT_EQ(ini_doc_load("/tmp/none", doc.out()), -EIO);
    EXPECT_FALSE(doc);
    ASSERT_EQ(ini_doc_parse("k=v", 3, doc.out()), 0);
    EXPECT_EQ(ini_doc_get_string(nullptr, "", "k", &value, INI_LAST), -EINVAL);
    EXPECT_EQ(ini_doc_get_string(doc.get(), "", nullptr, &value, INI_LAST), -EINVAL);
    EXPECT_EQ(ini_doc_get_string(doc.get(), "", "k", nullptr, INI_LAST), -EINVAL);
    EXPECT_EQ(ini_doc_get_section_list(nullptr, &list), -EINVAL);
    EXPECT_EQ(ini_doc_get_section_list(doc.get(), nullptr), -EINVAL);
}

TEST(IniDocument, CopiesTheBytesItIsGiven)
{
    char text[] = "k=v";
    IniDocGuard doc;
    ASSERT_EQ(ini_doc_parse(text, 3, doc.out()), 0);
    text[2] = 'x';
    IniValueGuard value;
    ASSERT_EQ(ini_doc_get_string(doc.get(), "", "k", value.out(), INI_LAST), 0);
    EXPECT_STREQ(value.get(), "v");
}

TEST(IniDocument, MayBeEmpty)
{
    IniDocGuard doc;
    ASSERT_EQ(ini_doc_parse(nullptr, 0, doc.out()), 0);
    char* value = nullptr;
    EXPECT_EQ(ini_doc_get_string(doc.get(), "", "k", &value, INI_LAST), -ENOENT);
    EXPECT_EQ(ini_doc_get_string(doc.get(), "a", "k", &value, INI_LAST), -1);
}

// ---- words ----

struct WordRow {
    const char* text;
    int enable_disable;
    int yes_no;
};

TEST(IniWords, AreOnOffOrNeither)
{
    const WordRow rows[] = {
        {"enable", 1, -1},   {"ENABLE", 1, -1},  {"EnAbLe", 1, -1},   {"1", 1, 1},
        {"disable", 0, -1},  {"Disable", 0, -1}, {"0", 0, 0},         {"y", -1, 1},
        {"Y", -1, 1},        {"yes", -1, 1},     {"YES", -1, 1},      {"n", -1, 0},
        {"N", -1, 0},        {"no", -1, 0},      {"No", -1, 0},       {"", -1, -1},
        {"enabled", -1, -1}, {"enabl", -1, -1},  {" enable", -1, -1}, {"on", -1, -1},
        {"11", -1, -1},      {"01", -1, -1},     {"2", -1, -1},       {"-1", -1, -1},
        {"ye", -1, -1},      {"yes ", -1, -1},   {"true", -1, -1},
    };
    for (const WordRow& row : rows) {
        EXPECT_EQ(string_enable_disable(row.text), row.enable_disable) << '"' << row.text << '"';
        EXPECT_EQ(string_yes_no(row.text), row.yes_no) << '"' << row.text << '"';
    }
    EXPECT_EQ(string_enable_disable(nullptr), -1);
    EXPECT_EQ(string_yes_no(nullptr), -1);
}

} // namespace
