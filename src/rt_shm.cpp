// Backplane access, NVMe drives, shared-memory regions and PCIe SSDs.
// Not built yet.
