// The commands of overhub. Each adds its description and its options to the command line, with what it does;
// see the file of the same name. `place` is where the store is, which is known once the line is parsed.
#pragma once

#include "common/command_line.h"
#include "overhub/store/store.h"

void addServe(programs::CommandLine& line, const Store::Place& place);

void addAddClient(programs::CommandLine& line, const Store::Place& place);
void addRenewClient(programs::CommandLine& line, const Store::Place& place);
void addRemoveClient(programs::CommandLine& line, const Store::Place& place);
void addClientHost(programs::CommandLine& line, const Store::Place& place);
void addClients(programs::CommandLine& line, const Store::Place& place);
// groups.cpp
void addGroups(programs::CommandLine& line, const Store::Place& place);
void addAddGroup(programs::CommandLine& line, const Store::Place& place);
void addRemoveGroup(programs::CommandLine& line, const Store::Place& place);
void addJoinGroup(programs::CommandLine& line, const Store::Place& place);
void addLeaveGroup(programs::CommandLine& line, const Store::Place& place);

void addSet(programs::CommandLine& line, const Store::Place& place);
void addUnset(programs::CommandLine& line, const Store::Place& place);
void addShow(programs::CommandLine& line, const Store::Place& place);

void addStatus(programs::CommandLine& line, const Store::Place& place);
void addWhy(programs::CommandLine& line, const Store::Place& place);
void addReport(programs::CommandLine& line, const Store::Place& place);
void addLog(programs::CommandLine& line, const Store::Place& place);
void addDiff(programs::CommandLine& line, const Store::Place& place);
void addUndo(programs::CommandLine& line, const Store::Place& place);
void addExport(programs::CommandLine& line, const Store::Place& place);
void addApply(programs::CommandLine& line, const Store::Place& place);

void addAcks(programs::CommandLine& line, const Store::Place& place);
void addUploads(programs::CommandLine& line, const Store::Place& place);
void addConfirm(programs::CommandLine& line, const Store::Place& place);
void addResend(programs::CommandLine& line, const Store::Place& place);

void addPush(programs::CommandLine& line, const Store::Place& place);
void addFetch(programs::CommandLine& line, const Store::Place& place);
void addCall(programs::CommandLine& line, const Store::Place& place);

void addBackup(programs::CommandLine& line, const Store::Place& place);
void addImport(programs::CommandLine& line, const Store::Place& place);
