// The commands of `voltaria`, one registration each; see voltaria_command.h. voltaria_main.cpp calls them in
// the order in which --help shows them.
#pragma once

namespace CLI
{
class App;
}

void add_status(CLI::App &app, int &status);
void add_watch(CLI::App &app, int &status);
void add_discover(CLI::App &app, int &status);
void add_notices(CLI::App &app, int &status);
void add_log(CLI::App &app, int &status);
void add_data(CLI::App &app, int &status);
