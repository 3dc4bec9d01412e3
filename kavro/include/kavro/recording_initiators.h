// Client (initiator) calls of the three recording services. One handle is one bus connection
// of its own; a handle is used by one thread at a time. Every call returns 0 or a status:
// the called service's own status number, or a KAVRO_STATUS_* failure of the framework.
// Outputs are written only on success. Returned arrays are null-terminated and freed by the
// caller with kavro_core_free_string_array / kavro_core_free_uint_array; a text with free().
#pragma once

#include "kavro/core.h"

extern "C" {

kavro_core_status kavro_api_recording_control_initiator_init(void* reserved1, void* logCookie,
                                                             void** handle, void* reserved2,
                                                             void* reserved3);
kavro_core_status kavro_api_recording_control_initiator_deinit(void* handle);
kavro_core_status kavro_api_recording_control_get_tracks_send(void* handle, const char* service,
                                                              char*** tracks);

kavro_core_status kavro_api_recording_information_initiator_init(void* reserved1, void* logCookie,
                                                                 void** handle, void* reserved2,
                                                                 void* reserved3);
kavro_core_status kavro_api_recording_information_initiator_deinit(void* handle);
kavro_core_status kavro_api_recording_information_get_recording_summary_send(
    void* handle, const char* service, unsigned int* startSec, unsigned int* startUsec,
    unsigned int* endSec, unsigned int* endUsec);
kavro_core_status kavro_api_recording_information_get_recording_state_send(
    void* handle, const char* service, unsigned int sec, unsigned int usec, unsigned char* state,
    char*** tracksOn);
kavro_core_status kavro_api_recording_information_get_track_summary_send(
    void* handle, const char* service, const char* track, unsigned int* startSec,
    unsigned int* startUsec, unsigned int* endSec, unsigned int* endUsec);

kavro_core_status kavro_api_recording_data_access_initiator_init(void* reserved1, void* logCookie,
                                                                 void** handle, void* reserved2,
                                                                 void* reserved3);
kavro_core_status kavro_api_recording_data_access_initiator_deinit(void* handle);
kavro_core_status kavro_api_recording_data_access_get_first_recording_history_event_time_send(
    void* handle, const char* service, unsigned int* sec, unsigned int* usec);
// keys and values: null-terminated arrays of pointers to one number each, parallel to names.
kavro_core_status kavro_api_recording_data_access_get_recording_history_event_send(
    void* handle, const char* service, unsigned int sec, unsigned int usec, unsigned int* curSec,
    unsigned int* curUsec, unsigned int* prevSec, unsigned int* prevUsec, unsigned int* nextSec,
    unsigned int* nextUsec, char*** names, unsigned int*** keys, unsigned int*** values);
kavro_core_status kavro_api_recording_data_access_get_metadata_send(
    void* handle, const char* service, unsigned int sec, unsigned int usec, unsigned int* curSec,
    unsigned int* curUsec, unsigned int* prevSec, unsigned int* prevUsec, unsigned int* nextSec,
    unsigned int* nextUsec, char** document);

}  // extern "C"
