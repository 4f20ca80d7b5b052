// Event-log submission: message arguments, friendly names and storage
// events for the controller's event log. Not built yet.
