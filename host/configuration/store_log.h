/* The store's log file: how it is written. */
#pragma once

namespace tamo::configuration {

/* The name of SQLite's system layer with a log file that is written in one piece; registered once. */
const char *gatheringLayer();

}  // namespace tamo::configuration
