#include "Common/UtiliaCommon/LocalizedTexts.h"

#include <gtest/gtest.h>

namespace utilia {
namespace {

TEST(TextWithName, PutsTheNameWhereTheLocalisedFormatHasItsPlace) {
    EXPECT_EQ(textWithName("%@ braucht das.", "This is needed by %@.", "Timer"),
              "Timer braucht das.");
    EXPECT_EQ(textWithName("%@ und %@", "%@", "A"), "A und A");
}

TEST(TextWithName, IsEnglishWhenTheLocalisedFormatHasLostThePlace) {
    for (const char* format : {"", "ohne Namen", "%s", "% @", "%"}) {
        EXPECT_EQ(textWithName(format, "Needed by %@.", "Timer"), "Needed by Timer.") << format;
    }
}

TEST(TextWithName, IsLocalisedWhereNeitherFormatNamesAnything) {
    EXPECT_EQ(textWithName("Hier ist nichts.", "There is nothing here.", ""), "Hier ist nichts.");
    EXPECT_EQ(textWithName("Das ist %@.", "This is it.", "Timer"), "Das ist Timer.");
}

TEST(TextWithName, DoesNotLookIntoTheName) {
    EXPECT_EQ(textWithName("<%@>", "%@", "%@%s%n%%"), "<%@%s%n%%>");
    EXPECT_EQ(textWithName("<%@>", "%@", ""), "<>");
}

}  // namespace
}  // namespace utilia
