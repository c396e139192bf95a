#pragma once
// Umbrella header for applications.

#include "tavrin/consent/consent_model.h"
#include "tavrin/consent/consent_status.h"
#include "tavrin/sdk/log_level.h"
#include "tavrin/sdk/logger_utility.h"
#include "tavrin/sdk/track_config.h"
#include "tavrin/sdk/tracking_settings.h"
#include "tavrin/session/session_manager.h"
#include "tavrin/tracking/any_value.h"
#include "tavrin/tracking/codable_value.h"
#include "tavrin/tracking/custom_properties.h"
#include "tavrin/tracking/push_payload.h"
#include "tavrin/tracking/variables_wrapper.h"
#include "tavrin/platform/platform.h"
