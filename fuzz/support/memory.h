// Memory that C++'s new lends from an area of its own, to the thread that runs an input.
#pragma once

// Between the two, blocks come from the area. They may be given back at any time, or never.
void second_opinion_begins();
void second_opinion_ends();
