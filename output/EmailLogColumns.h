// Slots of the email log's keyed columns in the module's column identifier
// table, in declaration order. DefineEmailLog fills the slots; the record
// builder addresses fields through them.
#pragma once

#include <cstddef>

namespace pelka {

enum EmailLogColumn : size_t {
  kColumnNumber,          // email_number
  kColumnProtocol,        // protocol
  kColumnServer,          // email_server
  kColumnClient,          // email_client
  kColumnSender,          // email_sender
  kColumnSenderAddress,   // email_sender_email
  kColumnReceiver,        // email_receiver
  kColumnReceiverAddress, // email_receive_email
  kColumnCc,              // email_cc
  kColumnSubject,         // email_subject
  kColumnSentTime,        // email_sent_time
  kColumnMailer,          // email_emailclient
  kColumnAccount,         // email_account
  kColumnAttachments,     // email_attachment
  kColumnFileSize,        // email_filesize
  kColumnDuration,        // email_duration
  kColumnAverageSpeed,    // email_averagespeed
  kColumnCopyPath,        // email_file_path
  kColumnProtocolPath,    // protocol_path
  kColumnGroup,           // group
  kEmailLogColumnCount,
};

// Positions of all 27 columns of the email log, in the order they are
// declared: the keyed ones above and the host's standard ones between them.
// The export finds its captions by these positions.
enum EmailLogPosition : int {
  kPositionNumber,
  kPositionDateTime,
  kPositionProtocol,
  kPositionClientMac,
  kPositionClientAddress,
  kPositionClientPort,
  kPositionServerMac,
  kPositionServerAddress,
  kPositionServerPort,
  kPositionServer,
  kPositionClient,
  kPositionSender,
  kPositionSenderAddress,
  kPositionReceiver,
  kPositionReceiverAddress,
  kPositionCc,
  kPositionSubject,
  kPositionSentTime,
  kPositionMailer,
  kPositionAccount,
  kPositionAttachments,
  kPositionFileSize,
  kPositionDuration,
  kPositionAverageSpeed,
  kPositionCopyPath,
  kPositionProtocolPath,
  kPositionGroup,
  kEmailLogPositionCount,
};

}  // namespace pelka
