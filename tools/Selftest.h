// korux selftest: the steps of a sensor's bring-up, and the limits its
// voltages are held to.
#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <vector>

namespace korux {

struct VoltageLimit {
    QString key; // as the unit's voltage report names it
    int lowest; // millivolts
    int highest;
};

const std::vector<VoltageLimit>& voltageLimits();

// The readings of a voltage report ({"FPGA High": mV, ...}) that are
// missing or outside their limits, one text each; empty when all are fine.
QStringList checkVoltages(const QJsonObject& values);

// Where a self-test's trace goes unless --record names one: the user's state
// folder (XDG_STATE_HOME, else ~/.local/state), korux/selftest-TIME.trace.
QString defaultSelftestTrace();

} // namespace korux
