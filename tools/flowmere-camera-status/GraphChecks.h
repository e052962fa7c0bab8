#pragma once

// The doctor's checks that read the PipeWire graph (CameraGraph): `service` (the camera's two
// nodes, the source's media class and role), `pipewire`, `wireplumber` (a session manager
// connected to PipeWire) and `producer` (which producer is linked, at which format, and which
// clients capture now).
//
// Pure functions of a CameraGraph: any thread.

#include "CameraGraph.h"
#include "DoctorCheck.h"

namespace flowmere::status {

Check serviceCheck(const CameraGraph& graph);
Check pipeWireCheck(const CameraGraph& graph);
Check wirePlumberCheck(const CameraGraph& graph);
Check producerCheck(const CameraGraph& graph);

}  // namespace flowmere::status
