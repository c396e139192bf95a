#pragma once
// Umbrella header for applications: the public API, and nothing but the
// standard library behind it. An application includes this one header.
//
//     tavrin::TavrinService::configure(tavrin::TrackConfig{.trackDomain = "collect.example.com",
//                                                          .container = "shop-app",
//                                                          .authorizationToken = "shop-token"});
//     auto tracking = tavrin::TrackingService::shared();
//     tracking->push({{"track", "pageview"}, {"page", "home"}});
//     std::future<bool> consent = tracking->setConsents({{"analytics", tavrin::ConsentStatus::allow}});
//     tracking->submit("browse").get();  // throws when the submission fails
//     tavrin::TavrinService::shutdown(std::chrono::seconds(2));

#include "tavrin/consent/consent_status.h"
#include "tavrin/model/codable_value.h"
#include "tavrin/model/enrichment.h"
#include "tavrin/platform/platform.h"
#include "tavrin/sdk/log_level.h"
#include "tavrin/sdk/tavrin_service.h"
#include "tavrin/sdk/track_config.h"
#include "tavrin/session/session_manager.h"
#include "tavrin/tracking/any_value.h"
#include "tavrin/tracking/tracking_service.h"
#include "tavrin/tracking/tracking_service_error.h"
#include "tavrin/tracking/variables_wrapper.h"
#include "tavrin/transport/service_error.h"
