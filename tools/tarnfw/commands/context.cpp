#include "commands/context.h"

#include <iostream>
#include <string>
#include <utility>

#include "cli/command.h"
#include "tarnfwadmin/baseFilter.h"

namespace tarnfw {
namespace {

StoreSession::Access allowed(StoreSession::Access access) {
    requireRoot();
    return access;
}

}  // namespace

Context::Context(StoreSession::Access access, std::unique_ptr<Machine> machine)
    : session_(allowed(access)), machine_(std::move(machine)) {
    printNotes();
}

Context::~Context() {
    printNotes();
}

void Context::requireBase() {
    if (!baseSeen_) {
        tarnfw::requireBase();
        baseSeen_ = true;
    }
}

void Context::printNotes() {
    for (const std::string& note : session_.takeNotes()) {
        std::cerr << "tarnfw: " << note << '\n';
    }
}

}  // namespace tarnfw
