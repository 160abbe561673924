// Launch descriptions are read with every run of blanks collapsed to one, and nothing else changed.
#include <gtest/gtest.h>

#include "pipelines/collapse_blanks.h"

using VideoDaemon::CollapseBlanks;

TEST(CollapseBlanks, RunsOfBlanksBecomeOneEvenInsideQuotes)
{
    EXPECT_EQ(CollapseBlanks("a    ! b  name=\"two    blanks\"   "), "a ! b name=\"two blanks\" ");
    EXPECT_EQ(CollapseBlanks("      "), " ");
}

TEST(CollapseBlanks, OtherWhitespaceAndSingleBlanksAreKept)
{
    EXPECT_EQ(CollapseBlanks("a\t\tb\n\nc d"), "a\t\tb\n\nc d");
    EXPECT_EQ(CollapseBlanks(""), "");
}
