#pragma once
// Umbrella header for applications: the public API, and nothing but the
// standard library behind it.

#include "tavrin/consent/consent_status.h"
#include "tavrin/platform/platform.h"
#include "tavrin/sdk/log_level.h"
#include "tavrin/sdk/tavrin_service.h"
#include "tavrin/sdk/track_config.h"
#include "tavrin/session/session_manager.h"
#include "tavrin/transport/service.h"
#include "tavrin/tracking/any_value.h"
#include "tavrin/tracking/codable_value.h"
#include "tavrin/tracking/enrichment.h"
#include "tavrin/tracking/tracking_service.h"
#include "tavrin/tracking/tracking_service_error.h"
#include "tavrin/tracking/variables_wrapper.h"
